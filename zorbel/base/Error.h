#pragma once

#include <boost/system/result.hpp>
#include <string>
#include <utility>

namespace zorbel {

/// Why something failed: which system reports it, the number of the error there, and a text for the user.
struct Error {
    Error() = default;
    Error(std::string theDomain, int theCode, std::string theDescription)
        : domain(std::move(theDomain)), code(theCode), description(std::move(theDescription)) {}

    std::string domain;
    int code = 0;
    std::string description;

    /// An error of the operating system, with its text for the number.
    static Error ofErrno(int code);
    /// The error in errno.
    static Error last();

    /// The same error, its text preceded by what it happened to: "subject: text".
    [[nodiscard]] Error on(const std::string& subject) const;
};

/// A value, or the error that stands in its place. Never throws: test it before the value is used.
template <typename Value>
using Result = boost::system::result<Value, Error>;

}  // namespace zorbel
