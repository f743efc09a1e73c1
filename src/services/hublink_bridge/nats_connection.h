// The connection to a NATS server or cluster: the only file that knows the client library.
//
// The library is used in its event-loop mode, so that all of it runs on the plugin's thread: the
// program's loop waits for descriptor() and calls serve(). Only connecting, which waits, is done by
// a thread of its own; it hands the result over through `wake`. Each connection is a new one of the
// library's: in this mode, what its parser has of a message when one is cut off stays there when
// the library connects anew by itself, and spoils the next.
//
// What is published while there is no connection is lost, and so may be what was published just
// before its end: who needs more says so to the other side and sends again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace bridge {

struct NatsOptions {
  std::vector<std::string> urls;  ///< tried in this order
  std::string clientName;         ///< as the server shows it
  std::string tlsCA;              ///< file of the authorities that are trusted; empty: the system's
  std::string tlsCert;            ///< files of the client's own certificate and key, or empty
  std::string tlsKey;
  std::string credentials;  ///< file with a user's token and seed, or empty
  std::string user;
  std::string password;
  std::int64_t silence =
      10000;  ///< milliseconds without a byte after which a server counts as gone
};

using NatsHeaders = std::vector<std::pair<std::string, std::string>>;

/// A message that has come; valid in the call that hands it over.
class NatsMessage {
 public:
  explicit NatsMessage(void* message) : message_(message) {}
  std::string_view subject() const;
  const unsigned char* bytes() const;
  std::size_t size() const;
  /// Empty if there is none of this name.
  std::string header(const char* name) const;

 private:
  void* message_;
};

class NatsListener {
 public:
  virtual ~NatsListener() = default;
  virtual void natsMessage(const NatsMessage& message) = 0;
  /// The connection is there (`text`: the server's URL), or has ended or is refused (`text`: why).
  virtual void natsState(bool isConnected, const std::string& text) = 0;
};

class NatsConnection {
 public:
  /// `wake` has serve() called soon, and may be called from any thread.
  NatsConnection(NatsListener& listener, std::function<void()> wake);
  ~NatsConnection();
  NatsConnection(const NatsConnection&) = delete;
  NatsConnection& operator=(const NatsConnection&) = delete;

  /// Connects, and from then on anew after each end. If nobody is there it goes on trying, and
  /// natsState() will tell; `error` says meanwhile why. False with a text if that is in vain: files
  /// that can't be read, a server that refuses this client or isn't trusted.
  bool connect(const NatsOptions& options, std::string& error);
  void close();
  bool isConnected() const { return isUp_; }
  /// The URL of the server at the other end; empty without one.
  std::string server() const;
  /// The most bytes of one message.
  std::int64_t maxPayload() const;

  /// Messages of this subject, which may hold wildcards, are handed over in every connection from
  /// the next on. To be called before connect().
  void subscribe(std::string subject) { subjects_.push_back(std::move(subject)); }
  /// Whether to queue a message of that size that could as well wait: not if much waits for the
  /// line already. There is room again after a serve() that was told that it is writable. Little
  /// ones may overtake what takes all room.
  bool hasRoom(std::size_t size);
  /// Queues a message for the next flush(); false without a connection, or if the line has stood
  /// still for so long that more than hasRoom() ever allows is queued.
  bool publish(const std::string& subject, const void* bytes, std::size_t size);
  bool publish(const std::string& subject, const NatsHeaders& headers, const void* bytes,
               std::size_t size);
  /// Writes what is queued as far as that goes at once.
  void flush();

  // --- For the program's loop ---
  /// What to wait for, or -1.
  int descriptor() const;
  bool wantsWrite() const;
  /// Reads once, unless some of the last time is still there, hands over what has come, though not
  /// all of a flood, and tells of changes of the connection.
  void serve(bool isReadable, bool isWritable);
  /// Milliseconds until it is to be called in any case; -1: never.
  std::int64_t nextTimeout(std::int64_t now) const;

 private:
  struct Signals;
  struct Library;
  struct LibraryCalls;
  enum class Try { connected, unreachable, refused };

  Try tryToConnect(std::unique_ptr<Library>& library, std::string& error);
  void connectInBackground(bool isToWait);
  void takeConnection();
  bool subscribeAll(std::string& error);
  int queued() const;
  bool isSilent(std::int64_t now) const;
  void handOver();
  void discard(void* message, std::size_t size);
  void destroyDiscarded();
  void tellState(bool isSilent);

  NatsListener& listener_;
  std::function<void()> wake_;
  NatsOptions options_;
  std::vector<std::string> subjects_;
  std::unique_ptr<Library> library_;  // of the connection that there is
  std::vector<void*> discarded_;      // messages that are still to be destroyed
  bool isUp_ = false;
  bool hasMore_ = false;                                      // than was handed over at once
  std::int64_t connectedAt_ = 0, servedAt_ = 0, readAt_ = 0;  // ms
  std::thread connecting_;
  std::mutex mutex_;  // for what the thread that connects shares
  std::unique_ptr<Library> arrived_;
  std::string refusal_;  // why a server has refused this client last; empty: none since it took it
  bool isRefusalNew_ = false;
  bool gaveUp_ = false;
};

}  // namespace bridge
