// The control socket: one thread owns the Unix stream socket "/dev/socket/vekt", serves one
// client at a time, reads fixed 1032-byte records and hands each to handleMessage on that
// same thread. When the client hangs up the socket is thrown away and created afresh.
//
// Stop protocol: stopSocketThreads closes the thread's epoll descriptor, sets gEpollFd to -1
// and interrupts the thread with SIGUSR1. The thread looks at gEpollFd only after an epoll
// wait, so a stop takes effect only while a client is connected. Without a client the signal
// interrupts accept, the thread logs the failure, re-creates the socket and waits in accept
// again, and the caller stays in pthread_join until someone stops it again with a client
// connected.
#pragma once

#include <pthread.h>

#include <atomic>

class Parameters;

// Device path of the control socket; under a device root the file lives below the root,
// while log lines keep this text.
constexpr const char* kControlSocketPath = "/dev/socket/vekt";

// gSocketThread's value while no socket thread is known.
constexpr pthread_t kNoSocketThread = static_cast<pthread_t>(-1);

// The configuration singleton, stored by createSocketThreads after the socket thread is
// already running; the handlers do nothing while it is null. It is written on the main
// thread and read on the socket thread, so it is atomic: read it once into a local
// (`Parameters* params = gParams;`) and use that.
extern std::atomic<Parameters*> gParams;
// The socket thread, for stopSocketThreads. Written and read on the main thread only.
extern pthread_t gSocketThread;
// The socket thread's epoll descriptor, and the stop flag: -1 while the thread waits means
// "stop". Shared by the main thread (stop) and the socket thread without a lock; whoever
// swaps a descriptor out of it (exchange to -1) is the one that closes it.
extern std::atomic<int> gEpollFd;

// Creates, binds (after unlinking any old file) and chmods 0666 the listening socket for the
// device path name; returns the descriptor (close-on-exec) or -1.
int createSocket(const char* name);
// Installs the SIGUSR1 handler and starts the socket thread; returns its id, or
// kNoSocketThread when it could not be started.
pthread_t createSocketThreads(Parameters* params);
// The socket thread's body; returns null.
void* socketThreadHandle(void* unused);
// Stops and joins the socket thread (see the stop protocol above); returns the join result,
// or -1 when the thread could not be signalled.
int stopSocketThreads();
// SIGUSR1: caught so that the signal interrupts the socket thread's blocking call without
// ending the process. It only notes the signal; the socket thread logs
// "Received signal %d" once the interrupted call has returned.
void signal_handler(int sig);
