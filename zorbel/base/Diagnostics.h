#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace zorbel {

/// The one place that prints messages for the user: warnings and errors, not the report. Any thread may
/// report.
class Diagnostics {
  public:
    Diagnostics() = default;
    Diagnostics(const Diagnostics&) = delete;
    Diagnostics& operator=(const Diagnostics&) = delete;
    virtual ~Diagnostics() = default;

    /// Prints a message of one line or more at once. Lines of one message stay together, and no other message
    /// comes between them. The newline at the end is added.
    virtual void report(std::string_view message) = 0;
};

/// Prints messages on a stream, which is lent. Without a stream they are dropped.
class StreamDiagnostics final : public Diagnostics {
  public:
    explicit StreamDiagnostics(std::FILE* stream) : _stream(stream) {}

    void report(std::string_view message) override;

  private:
    std::mutex _mutex;
    std::FILE* _stream;
};

/// Prints messages elsewhere, with a text before each, such as the name of the program.
class PrefixedDiagnostics final : public Diagnostics {
  public:
    PrefixedDiagnostics(Diagnostics& target, std::string prefix)
        : _target(target), _prefix(std::move(prefix)) {}

    void report(std::string_view message) override { _target.report(_prefix + std::string(message)); }

  private:
    Diagnostics& _target;
    std::string _prefix;
};

}  // namespace zorbel
