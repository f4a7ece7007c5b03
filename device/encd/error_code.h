// How an operation of the encoder ended, as it travels in code and message of common.v1.Status.
#ifndef DEVICE_ENCD_ERROR_CODE_H_
#define DEVICE_ENCD_ERROR_CODE_H_

#include "base/outcome.h"

namespace encd {

// The numbers are part of the wire contract: new ones are added at the end. 400 and 500 are left out, they are codes
// of the console's own.
enum class ErrorCode {
  kOk = 0,
  kBadValue = 1,     // the text says what is allowed
  kWrongState = 2,   // not possible now, such as a second recording
  kUnknown = 3,      // no such stream
  kUnreachable = 4,  // the server can't be reached or refused
  kFailed = 5,       // it was tried and did not work, such as a full disk
  kUnsupported = 6,
};

// The text is filled in either case: the console prints it.
using Outcome = device::Outcome<ErrorCode>;

}  // namespace encd

#endif  // DEVICE_ENCD_ERROR_CODE_H_
