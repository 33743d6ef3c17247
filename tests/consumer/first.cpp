// Squares 1,000 stored numbers on all cores and adds the squares up.
#include "pmicli.h"
#include <cstdio>

using Number = unsigned long long;

int square(const char *data, unsigned, const char *, unsigned, char **result, unsigned *len) {
    *result = static_cast<char *>(Omrapmi_malloc(sizeof(Number)));
    if (!*result)
        return -1; // becomes an exception of the invocation
    Number number = *reinterpret_cast<const Number *>(data);
    *reinterpret_cast<Number *>(*result) = number * number;
    *len = sizeof(Number);
    return 0;
}

int add(char *sum, unsigned sum_len, const char *more, unsigned, char **merged, unsigned *len) {
    *reinterpret_cast<Number *>(sum) += *reinterpret_cast<const Number *>(more);
    *merged = sum; // changed in place
    *len = sum_len;
    return 0;
}

int main() {
    OMRALIB_HANDLE store = Omralib_open_ext(nullptr);
    OMRA_OBJKEY key{.app_id = 1};
    for (Number number = 1; number <= 1000; ++number) {
        key.obj_id.u64_comp[0] = number;
        Omralib_store_obj(store, 0, &number, sizeof number, 0, key);
    }
    Omrapmi_worker_register_eval_func(square, 0, 1); // function 0, for the objects of app id 1
    Omrapmi_worker_register_merge_func(add, 1, 1);
    Omrapmi_worker_start(1);

    OMRAPMI_INVOKE_ARGS args{.app_id = 1, .func_id_eval = 0, .func_id_merge = 1, .timeout_s = 60};
    int status = Omrapmi_invoke(store, &args);
    if (status == OMRALIB_RET_SUCCESS)
        std::printf("%u squares add up to %llu\n", args.num_successful_out,
                    *reinterpret_cast<Number *>(args.presults_obj_out));
    else
        std::printf("%s\n", Omrapmi_status_text(status));
    Omrapmi_free(args.presults_obj_out);
    Omralib_close(store);
}
