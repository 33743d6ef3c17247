/* Many threads at once: what they count in the end must be exact, whatever the order. */
#include <atomic>
#include <thread>

#include "store_test.h"

namespace {

constexpr unsigned int num_threads = 4;

class Threads : public StoreTest {};
FOR_ALL_ENGINES(Threads);

template <typename Work>
void run_threads(Work work) {
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i < num_threads; ++i) {
        threads.emplace_back([&work, i] {
            const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
            work(hdl, i);
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_close(hdl));
        });
    }
}

TEST_P(Threads, OneOfManyCreatesAndUpdatesUnderLocksAreNeverLost) {
    constexpr unsigned int rounds = 300;
    std::atomic<unsigned int> created{0};
    run_threads([&](OMRALIB_HANDLE hdl, unsigned int) {
        for (unsigned int i = 0; i < rounds; ++i) {
            const OMRA_OBJKEY key = make_key(1, i % 10);
            created += put(hdl, key, "0") == OMRALIB_RET_SUCCESS ? 1 : 0;
            unsigned int len = 0;
            int ticket = 0;
            while ((ticket = Omralib_read_and_lock_obj(hdl, 0, 0, &len, key)) ==
                   OMRALIB_ERR_OBJ_LOCKED) {
                std::this_thread::yield();
            }
            ASSERT_GT(ticket, 0);
            const int value = std::stoi(fetch(hdl, len));
            ASSERT_EQ(OMRALIB_RET_SUCCESS,
                      update(hdl, key, ticket, std::to_string(value + 1), true));
        }
    });
    EXPECT_EQ(10u, created);
    int sum = 0;
    for (unsigned int i = 0; i < 10; ++i) {
        sum += std::stoi(get(hdl_, make_key(1, i)));
    }
    EXPECT_EQ(static_cast<int>(num_threads * rounds), sum);
}

/* Readers see whole objects while they are replaced, removed, expired and listed around them. */
TEST_P(Threads, ReadersSeeWholeObjects) {
    constexpr unsigned int rounds = 3000;
    run_threads([&](OMRALIB_HANDLE hdl, unsigned int thread) {
        for (unsigned int i = 0; i < rounds; ++i) {
            const OMRA_OBJKEY key = make_key(1, i * (thread + 1) % 50);
            const std::string data(1 + i % 90, static_cast<char>('a' + i % 26));
            const OMRA_OBJ_INDEX index = make_index(3, i % 7);
            switch ((i + thread) % 6) {
            case 0:
                put(hdl, key, data, 1);
                break;
            case 1:
                Omralib_replace_obj(hdl, data.data(), static_cast<unsigned int>(data.size()), i % 3,
                                    &index, 1, key);
                break;
            case 2:
                if (i % 5 == 0) {
                    Omralib_remove_obj(hdl, 0, key);
                }
                break;
            case 3:
                if (thread == 0) {
                    clock_.advance(store::millis_per_second);
                }
                count(hdl, 1);
                break;
            case 4:
                find_value(1, 3, i % 7);
                break;
            default:
                const std::string got = get(hdl, key);
                if (got != "status -109") {
                    ASSERT_EQ(std::string(got.size(), got[0]), got);
                }
            }
        }
    });
}

/* Each thread invokes with its own handle; its completions come from the others' threads or its
 * own, and reach the right invocation. */
TEST_P(Threads, ManyInvokeAtOnce) {
    for (unsigned int app_id = 1; app_id <= num_threads; ++app_id) {
        for (unsigned int i = 0; i < app_id; ++i) {
            ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(app_id, i), "x"));
        }
    }
    static std::mutex lock;
    static std::vector<OMRALIB_INVOKE_PARAMS> accepted;
    OMRALIB_CB cb;
    cb.invoke_cb = [](OMRALIB_INVOKE_PARAMS *pparams) {
        const std::lock_guard guard(lock);
        accepted.push_back(*pparams);
        return OMRALIB_INVOKE_ACCEPTED;
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE, cb));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(hdl_, 9));

    std::jthread completer([this](std::stop_token stop) {
        while (!stop.stop_requested()) {
            std::vector<OMRALIB_INVOKE_PARAMS> batch;
            {
                const std::lock_guard guard(lock);
                batch.swap(accepted);
            }
            for (const OMRALIB_INVOKE_PARAMS &params : batch) {
                EXPECT_EQ(OMRALIB_RET_SUCCESS,
                          Omralib_complete_invoke(hdl_, params.context,
                                                  static_cast<unsigned int>(params.num_keys), 0));
            }
            std::this_thread::yield();
        }
    });
    run_threads([&](OMRALIB_HANDLE hdl, unsigned int thread) {
        OMRA_INDEX_HDR header{};
        header.reserved = OMRALIB_INDEX_OP_INVOKE;
        header.app_id = thread + 1;
        header.reserved2 = 9;
        for (int i = 0; i < 200; ++i) {
            OMRA_INVOKE_RESULT result{};
            unsigned int len = 0;
            ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_invoke(hdl, 0, &header, sizeof header, &len));
            ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_read_data(hdl, &result, sizeof result));
            ASSERT_EQ(thread + 1, result.num_successful);
        }
    });
    OMRALIB_STATS stats;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
    EXPECT_EQ(num_threads * 200u, stats.num_invocations);
}

} // namespace
