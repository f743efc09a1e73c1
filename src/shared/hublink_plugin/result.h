// What comes of something that can fail: a value, or a failure by name with a text for people.
//
//   const hublink::Result<AddReply> reply = client.add({.a = 40, .b = 2});
//   if (!reply) std::fprintf(stderr, "%s\n", reply.text().c_str());
//   else std::printf("%d\n", reply->sum);
//
// A handler gives its reply in the same way, or refuses: return hublink::refuse("why").
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace hublink {

enum class Failure : std::uint8_t {
  timedOut,      ///< no answer in time
  linkEnded,     ///< the link has ended, by either side or with the connection to the hub
  notSupported,  ///< the peer doesn't take this message
  refused,       ///< the peer has said no
  tooLarge,      ///< the message would be larger than a packet may be, a little less than 256 MiB
  badValue,      ///< a value that can't be sent: a text with a zero byte in it
  notFound,      ///< nobody provides the service
};

/// A word or two for a failure.
const char* failureText(Failure failure);

struct Error {
  Failure failure = Failure::timedOut;
  std::string text;
};

/// What a handler returns in place of a reply; its caller gets the text.
inline Error refuse(std::string why) {
  return {Failure::refused, std::move(why)};
}

template <class T>
class [[nodiscard]] Result {
 public:
  Result(T value) : value_(std::move(value)) {}
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const { return !error_; }
  /// The value. After a failure it is one made from nothing, whose fields have their defaults.
  const T& operator*() const { return value_; }
  const T* operator->() const { return &value_; }
  T& operator*() { return value_; }
  T* operator->() { return &value_; }
  /// Only after a failure.
  Failure failure() const { return error().failure; }
  const Error& error() const { return *error_; }
  /// Why it failed, empty if it didn't. For Failure::refused it is what the peer has said.
  std::string text() const { return error_ ? error_->text : std::string(); }

 private:
  T value_{};
  std::optional<Error> error_;
};

/// Of what gives no value. To leave it unread is no mistake.
template <>
class Result<void> {
 public:
  Result() = default;
  Result(Error error) : error_(std::move(error)) {}

  explicit operator bool() const { return !error_; }
  Failure failure() const { return error().failure; }
  const Error& error() const { return *error_; }
  std::string text() const { return error_ ? error_->text : std::string(); }

 private:
  std::optional<Error> error_;
};

}  // namespace hublink
