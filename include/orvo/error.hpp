// orvo::Error: every failure of the modern API, with the errno and what to do about it.
#pragma once

#include <string>
#include <system_error>

#include "orvo/export.hpp"

namespace orvo {

class ORVO_API Error : public std::system_error {
public:
    Error(int errno_value, const std::string& what);
    int errno_value() const noexcept { return code().value(); }
};

}  // namespace orvo
