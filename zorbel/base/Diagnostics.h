#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace zorbel {

/// Prints all messages for the user: warnings and errors, but not the report. Thread-safe.
class Diagnostics {
  public:
    Diagnostics() = default;
    Diagnostics(const Diagnostics&) = delete;
    Diagnostics& operator=(const Diagnostics&) = delete;
    virtual ~Diagnostics() = default;

    /// Prints a message of one or more lines. Its lines stay together, even if other threads report. Adds the
    /// newline at the end.
    virtual void report(std::string_view message) = 0;
};

/// Prints messages to a stream, which must outlive this object. Drops them if the stream is null.
class StreamDiagnostics final : public Diagnostics {
  public:
    explicit StreamDiagnostics(std::FILE* stream) : _stream(stream) {}

    void report(std::string_view message) override;

  private:
    std::mutex _mutex;
    std::FILE* _stream;
};

/// Passes messages on with a prefix, such as the name of the program.
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
