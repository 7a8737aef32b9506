// The four stop signals (SIGHUP, SIGINT, SIGQUIT, SIGTERM) and who runs the
// stop. The signals are blocked in both threads and read from a signalfd,
// so no stop work ever runs inside an asynchronous signal handler. Every
// wait of either thread watches it:
//   - a signal sent to the process is the main thread's to take; if the
//     dispatcher happens to read it, it passes it on to the main thread;
//   - a signal sent to the dispatcher thread alone (tgkill) is taken there,
//     and the dispatcher runs the stop itself.
// Whichever thread begins a stop first owns it; from then on
// stoppingDescriptor() is readable, which ends blocked sends, and the main
// thread gives way to a stop the dispatcher runs by parking for good.
#ifndef DRAVIK_SERVICE_STOP_SIGNALS_H_
#define DRAVIK_SERVICE_STOP_SIGNALS_H_

namespace stopsignals {

// The stop itself: logs, stops the API and ends the process. Never returns.
using Handler = void (*)(int signal);

// Blocks the four signals, opens the signalfd and records `handler`. Call on
// the main thread before any other thread starts (they inherit the mask).
void install(Handler handler);

// Readable while a stop signal is pending for the polling thread or the
// process; -1 before install().
int descriptor();
// Readable once a thread has begun the stop.
int stoppingDescriptor();

// The main thread's waits and checks. A stop signal taken runs the handler;
// a stop the dispatcher has begun parks the main thread.
// Waits `seconds`, unless a stop comes first.
void sleep(unsigned seconds);
// Between two steps: does not wait.
void check();

// The dispatcher's check, between messages and after a woken read: runs the
// handler for a signal sent to the dispatcher thread alone, unless the main
// thread's stop is already underway (it ends the dispatcher); passes one
// sent to the process on to the main thread.
void checkOnDispatcher();

// True for the thread that begins the stop, and again for it later; false
// for the other thread. The first claim makes stoppingDescriptor() readable.
bool claim();
// The main thread gives way to the dispatcher's stop: it waits for ever,
// touching nothing that the exit destroys. REQUIRES: the main thread.
[[noreturn]] void park();
// The dispatcher's stop, before it touches what the main thread may still be
// using: waits until the main thread is parked (at most a second).
void awaitMainParked();

}  // namespace stopsignals

#endif  // DRAVIK_SERVICE_STOP_SIGNALS_H_
