/* A plain C program: counts the objects that an index query finds. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "pmicli.h"
#include "storapp.h"

enum { APP = 7, COUNT = 10, ADD = 11, NUM_OBJECTS = 1000, PARITY_INDEX = 3 };

static void require(int status, const char *what) {
    if (status != OMRALIB_RET_SUCCESS) {
        printf("%s: %s\n", what, Omrapmi_status_text(status));
        exit(1);
    }
}

static int count(const char *data, unsigned data_len, const char *params, unsigned params_len,
                 char **result, unsigned *result_len) {
    const unsigned one = 1;
    (void)data, (void)data_len, (void)params, (void)params_len;
    *result = Omrapmi_malloc(sizeof one);
    if (*result == NULL) {
        return -1;
    }
    memcpy(*result, &one, sizeof one);
    *result_len = sizeof one;
    return 0;
}

static int add(char *dst, unsigned dst_len, const char *src, unsigned src_len, char **merged,
               unsigned *merged_len) {
    unsigned sum, more;
    (void)src_len;
    memcpy(&sum, dst, sizeof sum);
    memcpy(&more, src, sizeof more);
    sum += more;
    memcpy(dst, &sum, sizeof sum);
    *merged = dst;
    *merged_len = dst_len;
    return 0;
}

/* Objects without bytes, each with its number's parity as an index. */
static void store_objects(OMRALIB_HANDLE store) {
    for (unsigned number = 0; number < NUM_OBJECTS; ++number) {
        OMRA_OBJKEY key = {.app_id = APP, .obj_id.u32_comp = {number + 1}};
        OMRA_OBJ_INDEX parity = {.index = PARITY_INDEX, .value.u64_comp = {number % 2}};
        require(Omralib_store_indexed_obj(store, NULL, 0, 0, &parity, 1, key), "store");
    }
}

int main(void) {
    OMRAPMI_QUERY_SPEC odd = {.match_all = 1,
                              .num_index_specs = 1,
                              .index_spec = {{.index = PARITY_INDEX, .value.u64_comp = {1}}}};
    OMRAPMI_INVOKE_ARGS args = {.app_id = APP,
                                .func_id_eval = COUNT,
                                .func_id_merge = ADD,
                                .use_query_spec = OMRAPMI_QUERY_INDEX,
                                .pquery_spec = &odd,
                                .query_spec_len = sizeof odd,
                                .timeout_s = 60};
    unsigned found;
    OMRALIB_HANDLE store = Omralib_open_ext(NULL);

    store_objects(store);
    require(Omrapmi_worker_register_eval_func(count, COUNT, APP), "register count");
    require(Omrapmi_worker_register_merge_func(add, ADD, APP), "register add");
    require(Omrapmi_worker_start(APP), "start");
    require(Omrapmi_invoke(store, &args), "invoke");
    memcpy(&found, args.presults_obj_out, sizeof found);
    printf("%u of %d objects are odd\n", found, NUM_OBJECTS);
    Omrapmi_free(args.presults_obj_out);
    require(Omralib_close(store), "close");
    return 0;
}
