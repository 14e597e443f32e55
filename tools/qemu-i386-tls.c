/* Preloaded into every program of the i386 root when tools/i386.sh runs it
 * under qemu's user-mode emulator (a kernel without IA-32 emulation).
 *
 * 32-bit glibc finds the running thread through %gs, a GDT entry that the
 * kernel switches per thread. qemu-i386 keeps one GDT for all threads: each
 * new thread overwrites the entry, and when a signal handler returns, %gs is
 * reloaded from it. A threaded program that handles a signal (cmake's
 * autogen, a QProcess's SIGCHLD) then carries on in the main thread with the
 * newest thread's identity: pthread_join fails with EDEADLK, thread-local
 * data is another thread's.
 *
 * Every handler installed is therefore wrapped: after it returns, the entry
 * is set back to the base of the thread that ran it, which %gs still holds
 * until the emulated sigreturn reloads it.
 *
 * qemu 7.2 also refuses clone(CLONE_PIDFD) although the host kernel answers
 * the waitid(P_PIDFD) probe: Qt's QProcess then fails to start anything and
 * its pid stays -1, so a later kill() signals every process there is. The
 * probe is answered "not supported", and Qt forks the classic way.
 *
 * Nor does it know PR_SET_CHILD_SUBREAPER, which the system tests ask for
 * only to reap the updater's detached children: there the request is taken
 * as granted, and the PID namespace tools/i386.sh runs everything in reaps
 * them instead. */
#define _GNU_SOURCE
#include <asm/ldt.h>
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#define SIGNALS 65
static struct sigaction handlers[SIGNALS];

static void restore_thread_entry(void) {
    unsigned short selector;
    uintptr_t self;
    __asm__ volatile("mov %%gs, %0" : "=r"(selector));
    __asm__ volatile("mov %%gs:0, %0" : "=r"(self)); /* the thread's own TCB address */
    struct user_desc entry;
    memset(&entry, 0, sizeof entry);
    entry.entry_number = selector >> 3;
    entry.base_addr = self;
    entry.limit = 0xfffff;
    entry.seg_32bit = 1;
    entry.limit_in_pages = 1;
    entry.useable = 1;
    syscall(SYS_set_thread_area, &entry);
}

static void trampoline(int sig, siginfo_t *info, void *context) {
    const struct sigaction *action = &handlers[sig];
    if (action->sa_flags & SA_SIGINFO)
        action->sa_sigaction(sig, info, context);
    else if (action->sa_handler != SIG_IGN && action->sa_handler != SIG_DFL)
        action->sa_handler(sig);
    restore_thread_entry();
}

int sigaction(int sig, const struct sigaction *act, struct sigaction *old) {
    static int (*real)(int, const struct sigaction *, struct sigaction *);
    if (!real)
        real = (int (*)(int, const struct sigaction *, struct sigaction *))dlsym(RTLD_NEXT,
                                                                                 "sigaction");
    struct sigaction wrapped;
    const int wrap =
        sig > 0 && sig < SIGNALS && act && act->sa_handler != SIG_IGN && act->sa_handler != SIG_DFL;
    if (wrap) {
        wrapped = *act;
        wrapped.sa_flags |= SA_SIGINFO;
        wrapped.sa_sigaction = trampoline;
    }
    const struct sigaction previous =
        sig > 0 && sig < SIGNALS ? handlers[sig] : (struct sigaction){0};
    const int rc = real(sig, wrap ? &wrapped : act, old);
    if (rc != 0)
        return rc;
    if (old && old->sa_sigaction == trampoline)
        *old = previous;
    if (wrap)
        handlers[sig] = *act;
    return rc;
}

/* glibc's signal() does not go through the sigaction symbol. */
sighandler_t signal(int sig, sighandler_t handler) {
    struct sigaction act, old;
    memset(&act, 0, sizeof act);
    act.sa_handler = handler;
    sigemptyset(&act.sa_mask);
    sigaddset(&act.sa_mask, sig);
    act.sa_flags = SA_RESTART;
    if (sigaction(sig, &act, &old) < 0)
        return SIG_ERR;
    return old.sa_handler;
}

long syscall(long number, ...) {
    static long (*real)(long, ...);
    if (!real)
        real = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    va_list list;
    va_start(list, number);
    long args[6];
    for (int i = 0; i < 6; ++i)
        args[i] = va_arg(list, long);
    va_end(list);
    if (number == SYS_waitid && args[0] == 3 /* P_PIDFD */) {
        errno = EINVAL;
        return -1;
    }
    return real(number, args[0], args[1], args[2], args[3], args[4], args[5]);
}

int prctl(int option, ...) {
    static int (*real)(int, ...);
    if (!real)
        real = (int (*)(int, ...))dlsym(RTLD_NEXT, "prctl");
    va_list list;
    va_start(list, option);
    unsigned long args[4];
    for (int i = 0; i < 4; ++i)
        args[i] = va_arg(list, unsigned long);
    va_end(list);
    const int rc = real(option, args[0], args[1], args[2], args[3]);
    if (rc != 0 && errno == EINVAL && option == PR_SET_CHILD_SUBREAPER)
        return 0;
    return rc;
}
