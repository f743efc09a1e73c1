// The one shape of a blocking wait: look whether there is what it is for, ask the handler whether
// to go on, let time pass, and look again.
#pragma once

#include <cstdint>

#include "libcxxutil/ut_retryhandler.h"

enum class WaitState : std::uint8_t {
  waiting,  ///< it isn't there yet: told by a look, not the end of a wait
  reached,
  failed,  ///< it won't come any more
  gaveUp,  ///< the handler has said no
};

/// Where a wait begins in the round of look, ask and pass, and when it asks.
enum class WaitOrder : std::uint8_t {
  lookFirst,  ///< it may be there already
  askFirst,   ///< it can't be there before time has passed
  passFirst,  ///< the same, and some time is given to it in any case
  askBehind,  ///< lookFirst, but asks after time has passed and before the look
};

/// Waits until `look()` tells an end. `pass()` lets time pass where there is no `retry`, which then
/// never gives up. `retry` is started first and finished on every way out.
template <class Look, class Pass>
WaitState waitUntil(RetryHandler* retry, WaitOrder order, Look look, Pass pass) {
  const auto mayGoOn = [retry] { return !retry || retry->shouldRetry(); };
  const bool asksBehind = order == WaitOrder::askBehind;
  bool asks = order == WaitOrder::lookFirst || order == WaitOrder::askFirst;
  if (retry) retry->start();
  WaitState state = asksBehind || order == WaitOrder::lookFirst ? look() : WaitState::waiting;
  while (state == WaitState::waiting) {
    if (asks && !mayGoOn()) {
      state = WaitState::gaveUp;
      break;
    }
    if (retry)
      retry->wait();
    else
      pass();
    state = asksBehind && !mayGoOn() ? WaitState::gaveUp : look();
    asks = !asksBehind;
  }
  if (retry) retry->finish();
  return state;
}
