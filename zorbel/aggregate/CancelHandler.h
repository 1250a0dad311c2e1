#pragma once

#include <functional>
#include <thread>

namespace zorbel {

/// Takes SIGINT away from the process and calls a handler for each, on a thread of its own that waits for it.
///
/// Threads that are started meanwhile must come from the thread that made this object, since they inherit
/// that the signal is blocked. When the object goes, the signal has its default effect again.
class CancelHandler {
  public:
    explicit CancelHandler(std::function<void()> handler);
    ~CancelHandler();
    CancelHandler(const CancelHandler&) = delete;
    CancelHandler& operator=(const CancelHandler&) = delete;

  private:
    void _wait(int signals, int stop) const;

    std::function<void()> _handler;
    int _signals = -1;
    int _stop = -1;
    std::thread _thread;
};

}  // namespace zorbel
