#pragma once

#include <functional>
#include <thread>

namespace zorbel {

/// Calls a handler for each SIGINT, on a separate thread, instead of ending the process.
///
/// Only the thread that created this object may start threads meanwhile: they inherit the blocked signal.
/// After destruction, SIGINT has its default effect.
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
