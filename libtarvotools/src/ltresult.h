//===- ltresult.h - Named result codes (internal) -------------------------===//
//
// Results are 0 for success and negative errno-style values for failure. Functions that
// return an id return 0 on failure.
//
//===----------------------------------------------------------------------===//
#ifndef LTRESULT_H
#define LTRESULT_H

#include <cerrno>

namespace lt_internal {

constexpr int kOk = 0;
constexpr int kFailed = -1;          // generic failure, or not found
constexpr int kNotFoundOrLate = -2;  // not found, or a failure after files were opened
constexpr int kNoMemory = -ENOMEM;   // -12
constexpr int kBadArgument = -EINVAL;  // -22
constexpr int kNoId = 0;             // what id-returning operations give on failure

}  // namespace lt_internal

#endif // LTRESULT_H
