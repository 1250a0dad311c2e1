#include "aggregate/CancelHandler.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace zorbel {

namespace {

sigset_t interruptOnly() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    return set;
}

}  // namespace

CancelHandler::CancelHandler(std::function<void()> handler) : _handler(std::move(handler)) {
    const sigset_t interrupt = interruptOnly();
    _signals = signalfd(-1, &interrupt, SFD_CLOEXEC | SFD_NONBLOCK);
    _stop = eventfd(0, EFD_CLOEXEC);
    if (_signals < 0 || _stop < 0) return;  // Without descriptors, SIGINT ends the tool.
    // While blocked, the signal is delivered to the signalfd even if it is ignored, as shells set it for
    // background jobs.
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    try {
        _thread = std::thread([this] { _wait(_signals, _stop); });
    } catch (const std::system_error&) {
        pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    }
}

CancelHandler::~CancelHandler() {
    if (_thread.joinable()) {
        const std::uint64_t one = 1;
        while (write(_stop, &one, sizeof one) < 0 && errno == EINTR) {
        }
        _thread.join();
        std::signal(SIGINT, SIG_DFL);
        const sigset_t interrupt = interruptOnly();
        pthread_sigmask(SIG_UNBLOCK, &interrupt, nullptr);
    }
    if (_signals >= 0) close(_signals);
    if (_stop >= 0) close(_stop);
}

void CancelHandler::_wait(int signals, int stop) const {
    for (;;) {
        pollfd waited[] = {{signals, POLLIN, 0}, {stop, POLLIN, 0}};
        if (poll(waited, 2, -1) < 0 && errno != EINTR) return;
        signalfd_siginfo info;
        while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) _handler();
        if ((waited[1].revents & POLLIN) != 0) return;
    }
}

}  // namespace zorbel
