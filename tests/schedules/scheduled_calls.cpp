// The module's calls in the hands of the scheduler: each is a scheduling point, threads are fibers,
// and whoever would wait gives way. The store itself never waits here, and never gives way.
#include "scheduler.h"

#include "support/interposer.h"

#include <set>

namespace schedules {

namespace {

using interposer::instead;
using interposer::real;

std::set<const void *> held; // locks of all kinds
int process_cs;

void enter(const void *lock) {
    wait_until([=] { return held.count(lock) == 0; });
    held.insert(lock);
}

void leave(const void *lock) {
    held.erase(lock);
    point();
}

} // namespace

void schedule_calls(bool follows_script) {
    interposer::before = [=](const interposer::Call &call) {
        point();
        return follows_script ? interposer::scripted(call) : interposer::Verdict();
    };
    instead<Thread_fork> = [](void *(*pfunc)(void *), void *parg) {
        return start([=] { pfunc(parg); });
    };
    instead<Thread_end> = [] { end(); };
    instead<Thread_myid> = [] { return current(); };
    instead<Thread_sleep> = [](unsigned int) {};
    instead<Thread_datap_set> = [](void *pdata) {
        datap() = pdata;
        return 1;
    };
    instead<Thread_datap_get> = [] { return datap(); };
    instead<Sys_get_num_lprocs> = [] { return 2u; };
    instead<Blockq_deq> = [](BLOCKQ *pbq, unsigned int) {
        LINK *plink = nullptr;
        wait_until([&] { return (plink = real<Blockq_deq>(pbq, 0)) != nullptr; });
        return plink;
    };
    instead<Lock_enter> = [](THREADLOCK *plock, unsigned int) {
        enter(plock);
        return 1;
    };
    instead<Lock_exit> = [](THREADLOCK *plock) {
        leave(plock);
        return 1;
    };
    instead<Spinlock_enter> = [](THREADSPINL *pslock) { enter(pslock); };
    instead<Spinlock_exit> = [](THREADSPINL *pslock) { leave(pslock); };
    instead<Enter_cs> = [] { enter(&process_cs); };
    instead<Exit_cs> = [] { leave(&process_cs); };
}

} // namespace schedules
