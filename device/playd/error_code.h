// How an operation of the player ended, as it travels in result, error_code and error_infor of lp.v1.UniversalResp.
#ifndef DEVICE_PLAYD_ERROR_CODE_H_
#define DEVICE_PLAYD_ERROR_CODE_H_

#include <cstdint>

#include "base/outcome.h"

namespace playd {

// The numbers in error_code. They are part of the wire contract: new ones are added at the end.
enum class ErrorCode : std::int32_t {
  kOk = 0,
  kInvalidArgument = 1,  // a value that means nothing: an empty id, an unknown enumerator, an unparsable request
  kUnknownPlayer = 2,    // no player of this id was created
  kPlayerExists = 3,     // create, but there is one of this id
  kNoMedia = 4,          // the operation needs an open medium
  kMediaOpen = 5,        // open, but a medium is open already
  kFileMissing = 6,      // the file isn't there or can't be read
  kNotMedia = 7,         // nothing in it that can be shown or heard
  kMediaFailed = 8,      // the media framework gave up on it
  kTimeout = 9,          // not done in time; given up
  kBusy = 10,            // the player still works on an earlier request; nothing was done
  kNotSeekable = 11,     // pictures and live sources have no positions
  kSeekBehindEnd = 12,   // a position greater than the duration
  kBadSpeed = 13,        // zero or out of range, forward or backward
  kBadVolume = 14,       // more than 100
  kBadRectangle = 15,    // zero or unreasonable size
  kBadTiming = 16,       // numbers that no picture timing can have
  kUnsupported = 17,     // a message of the schema that this player doesn't serve
  kEnded = 18,           // the medium is at its end: a pause means nothing there, nor a resume if it has no positions
  kTooManyPlayers = 19,  // the limit of players is reached
  // 20 stood for mistakes with live systems, when they were taken account of.
  kContradiction = 21,  // the medium is not of the kind that media_type or file_type says
};

// The text is empty when all is well.
using Outcome = device::Outcome<ErrorCode>;

}  // namespace playd

#endif  // DEVICE_PLAYD_ERROR_CODE_H_
