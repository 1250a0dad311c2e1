#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <utility>

namespace zorbel {

/// Why something failed: the domain and the error number in it, and a text for the user.
struct Error {
    Error() = default;
    Error(std::string theDomain, int theCode, std::string theDescription)
        : domain(std::move(theDomain)), code(theCode), description(std::move(theDescription)) {}

    std::string domain;
    int code = 0;
    std::string description;

    /// An operating system error, with the system's text for the number.
    static Error ofErrno(int code);
    /// The current errno.
    static Error last();

    /// The same error, with the text "subject: text".
    [[nodiscard]] Error on(const std::string& subject) const;
};

/// A value or an error. Never throws: test it before you use the value.
template <typename Value>
using Result = boost::system::result<Value, Error>;

}  // namespace zorbel
