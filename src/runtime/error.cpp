// orvo::Error: a std::system_error in the generic (errno) category.
#include "orvo/error.hpp"

namespace orvo {

// what() reads "<what>: <strerror text>", so `what` should say what failed and what to do.
Error::Error(int errno_value, const std::string& what)
    : std::system_error(errno_value, std::generic_category(), what) {}

}  // namespace orvo
