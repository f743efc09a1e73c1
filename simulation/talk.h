// An interface of its own on a link between two plugins. Each side speaks one of two versions, of
// which each has fields and messages that the other lacks; all that a message carries follows from
// its number, so that the receiver knows what it must find.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "indgen/text.h"
#include "libcxxutil/ut_retryhandler.h"
#include "stp_transport/spec/stp_specclass.h"
#include "stp_transport/transport/counted_ptr.h"

/// What a side is told by its end.
struct TalkEvents {
  std::function<void(std::int32_t number)> noted;   ///< a note has come
  std::function<void()> asked;                      ///< a call is to be answered
  std::function<void(const std::string&)> garbled;  ///< something isn't as it was sent
};

/// One end; it lives as long as somebody holds its spec.
class Talk {
 public:
  virtual ~Talk() = default;
  /// Sends a note of this number, without waiting.
  virtual void note(std::int32_t number, STPStatus& status) = 0;
  /// Asks the other side and looks at its answer. False if none came.
  virtual bool call(std::int32_t number, RetryHandler& retry, STPStatus& status) = 0;
  /// Sends what only this version has, which a side of the other one can't take.
  virtual void sayOwn(STPStatus& status) = 0;
  virtual bool isUnlikePeer() const = 0;
};

struct TalkEnd {
  CountedPtr<STPSpecClass> spec;
  Talk* talk = nullptr;  ///< the same object
};

/// An end of the older or newer version, for the side that asked for the link or gave it.
TalkEnd makeTalk(bool isNew, bool isAsker, TalkEvents events);
