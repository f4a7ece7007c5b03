#include "klbase/cancellation.h"

#include <utility>

namespace klbase {
namespace {

thread_local std::stop_token t_current;

}  // namespace

std::stop_token CurrentStopToken() { return t_current; }

ScopedStopToken::ScopedStopToken(std::stop_token token) : outer_(std::exchange(t_current, std::move(token))) {}

ScopedStopToken::~ScopedStopToken() { t_current = std::move(outer_); }

}  // namespace klbase
