#include "services/hublink_bridge/nats_connection.h"

#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <random>

#include "platform/clock.h"
#include "services/hublink_bridge/parts.h"

namespace bridge {

namespace {

// Milliseconds: how long a connect may take, and how long to wait between two rounds of servers.
constexpr std::int64_t kConnectTime = 2000;
constexpr int kReconnectWait = 200;
constexpr unsigned kReconnectJitter = 100;
// After one that has lasted for less than this, in ms, there is such a wait, too.
constexpr std::int64_t kShortConnection = 1000;
// How often the library asks the server whether it is there, in ms. It would give it up for answers
// that are late, which they are behind megabytes on a slow line: here it is given up when nothing
// comes at all.
constexpr std::int64_t kPingInterval = 1500;
constexpr int kMostPings = 1 << 30;
// A program that hasn't served for so many ms can't tell whether anything would have come.
constexpr std::int64_t kOwnSilence = 2 * kPingInterval + 500;
// Bytes that may be queued for the line, by large messages, by little ones, and by what others need
// to know of this machine.
constexpr int kMostQueued = 256 << 10;
constexpr int kMostQueuedOfLittle = 1 << 20;
constexpr int kMostQueuedOfAll = 16 << 20;
constexpr std::size_t kLittleMessage = 4096;
// Bytes of one read, and of what is written at once.
constexpr int kBufferSize = 256 << 10;
// How many messages serve() hands over before it lets others have their turn.
constexpr int kMostMessages = 512;
// Up to how many messages of up to how many bytes wait until they are destroyed.
constexpr std::size_t kMostDiscarded = 64;
constexpr std::size_t kLargeMessage = 1024;

natsMsg* asMsg(void* message) {
  return static_cast<natsMsg*>(message);
}

}  // namespace

std::string_view NatsMessage::subject() const {
  return natsMsg_GetSubject(asMsg(message_));
}

const unsigned char* NatsMessage::bytes() const {
  return reinterpret_cast<const unsigned char*>(natsMsg_GetData(asMsg(message_)));
}

std::size_t NatsMessage::size() const {
  return static_cast<std::size_t>(natsMsg_GetDataLength(asMsg(message_)));
}

std::string NatsMessage::header(const char* name) const {
  const char* value = nullptr;
  return natsMsgHeader_Get(asMsg(message_), name, &value) == NATS_OK && value ? value : "";
}

// What the library's threads tell of a connection. They may do so for some time after it was
// destroyed, and nothing says when that is over: those few bytes of a connection stay.
struct NatsConnection::Signals {
  std::atomic<int> descriptor{-1};
  std::atomic<bool> wantsWrite{false};
  std::atomic<bool> hasEnded{false};
  std::mutex mutex;
  std::function<void()> wake;  // empty once nobody listens

  void tell() {
    const std::lock_guard lock(mutex);
    if (wake) wake();
  }
  static void keep(std::unique_ptr<Signals> signals) {
    static auto* kept = new std::vector<std::unique_ptr<Signals>>;
    static std::mutex ofKept;
    const std::lock_guard lock(ofKept);
    kept->push_back(std::move(signals));
  }
};

struct NatsConnection::Library {
  Signals* signals = nullptr;
  natsOptions* options = nullptr;
  natsConnection* connection = nullptr;
  std::vector<natsSubscription*> subscriptions;

  ~Library() {
    if (connection) {
      const std::lock_guard lock(signals->mutex);
      signals->wake = nullptr;
    }
    for (natsSubscription* one : subscriptions) natsSubscription_Destroy(one);
    if (connection) {
      natsConnection_Close(connection);
      natsConnection_Destroy(connection);
    }
    natsOptions_Destroy(options);
  }
};

// What the library calls, some of it on threads of its own.
struct NatsConnection::LibraryCalls {
  static natsStatus attach(void** user, void* loop, natsConnection*, natsSock socket) {
    *user = loop;
    static_cast<Signals*>(loop)->descriptor = socket;
    return NATS_OK;
  }
  static natsStatus read(void* user, bool add) {
    if (!add) static_cast<Signals*>(user)->descriptor = -1;
    return NATS_OK;
  }
  static natsStatus write(void* user, bool add) {
    static_cast<Signals*>(user)->wantsWrite = add;
    return NATS_OK;
  }
  static natsStatus detach(void* user) {
    static_cast<Signals*>(user)->descriptor = -1;
    return NATS_OK;
  }
  static void closed(natsConnection*, void* closure) {
    auto* signals = static_cast<Signals*>(closure);
    signals->hasEnded = true;
    signals->tell();
  }
  // A slow subscription can't be: those here have no limits.
  static void failed(natsConnection*, natsSubscription*, natsStatus, void*) {}
};

NatsConnection::NatsConnection(NatsListener& listener, std::function<void()> wake)
    : listener_(listener), wake_(std::move(wake)) {}

NatsConnection::~NatsConnection() {
  close();
}

NatsConnection::Try NatsConnection::tryToConnect(std::unique_ptr<Library>& made,
                                                 std::string& error) {
  auto signals = std::make_unique<Signals>();
  signals->wake = wake_;
  auto library = std::make_unique<Library>();
  library->signals = signals.get();
  natsOptions*& opts = library->options;
  std::vector<const char*> urls;
  for (const std::string& url : options_.urls) urls.push_back(url.c_str());
  natsStatus status = natsOptions_Create(&opts);
  const auto set = [&](natsStatus outcome, const std::string& what = "options") {
    if (status != NATS_OK || outcome == NATS_OK) return;
    status = outcome;
    const char* text = nats_GetLastError(nullptr);
    error = what + ": " + (text && *text ? text : natsStatus_GetText(outcome));
  };
  set(natsOptions_SetServers(opts, urls.data(), static_cast<int>(urls.size())), "server");
  set(natsOptions_SetNoRandomize(opts, true));
  set(natsOptions_SetName(opts, options_.clientName.c_str()));
  set(natsOptions_SetTimeout(opts, kConnectTime));
  set(natsOptions_SetAllowReconnect(opts, false));
  set(natsOptions_SetPingInterval(opts, kPingInterval));
  set(natsOptions_SetMaxPingsOut(opts, kMostPings));
  set(natsOptions_SetNoEcho(opts, true));
  set(natsOptions_SetIOBufSize(opts, kBufferSize));
  set(natsOptions_SetSendAsap(opts, true));
  set(natsOptions_DisableNoResponders(opts, true));
  set(natsOptions_SetErrorHandler(opts, LibraryCalls::failed, nullptr));
  set(natsOptions_SetClosedCB(opts, LibraryCalls::closed, signals.get()));
  set(natsOptions_SetEventLoop(opts, signals.get(), LibraryCalls::attach, LibraryCalls::read,
                               LibraryCalls::write, LibraryCalls::detach));
  if (!options_.tlsCA.empty() || !options_.tlsCert.empty())
    set(natsOptions_SetSecure(opts, true), "TLS");
  if (!options_.tlsCA.empty())
    set(natsOptions_LoadCATrustedCertificates(opts, options_.tlsCA.c_str()), options_.tlsCA);
  if (!options_.tlsCert.empty())
    set(natsOptions_LoadCertificatesChain(opts, options_.tlsCert.c_str(), options_.tlsKey.c_str()),
        options_.tlsCert);
  if (!options_.credentials.empty())
    set(natsOptions_SetUserCredentialsFromFiles(opts, options_.credentials.c_str(), nullptr),
        options_.credentials);
  if (!options_.user.empty())
    set(natsOptions_SetUserInfo(opts, options_.user.c_str(), options_.password.c_str()), "user");
  if (status != NATS_OK) return Try::refused;

  status = natsConnection_Connect(&library->connection, opts);
  if (status != NATS_OK) {
    const char* text = nats_GetLastError(nullptr);
    error = text && *text ? text : natsStatus_GetText(status);
    return status == NATS_NO_SERVER || status == NATS_TIMEOUT || status == NATS_IO_ERROR
               ? Try::unreachable
               : Try::refused;
  }
  Signals::keep(std::move(signals));
  made = std::move(library);
  return Try::connected;
}

bool NatsConnection::connect(const NatsOptions& options, std::string& error) {
  close();
  options_ = options;
  gaveUp_ = false;
  error.clear();
  std::unique_ptr<Library> library;
  switch (tryToConnect(library, error)) {
    case Try::refused:
      return false;
    case Try::unreachable:
      connectInBackground(true);
      return true;
    case Try::connected:
      arrived_ = std::move(library);
      wake_();
  }
  return true;
}

// What is refused once may be taken later, as when a server is given another configuration.
void NatsConnection::connectInBackground(bool isToWait) {
  if (connecting_.joinable()) connecting_.join();
  connecting_ = std::thread([this, isToWait] {
    std::minstd_rand random{std::random_device{}()};
    const auto wait = [&random] {
      platform::sleepMilliseconds(kReconnectWait + static_cast<int>(random() % kReconnectJitter));
    };
    if (isToWait) wait();
    for (;;) {
      std::unique_ptr<Library> library;
      std::string error;
      const Try outcome = tryToConnect(library, error);
      {
        const std::lock_guard lock(mutex_);
        if (gaveUp_) return;
        if (outcome == Try::connected) {
          arrived_ = std::move(library);
          refusal_.clear();
          wake_();
          return;
        }
        if (outcome == Try::refused && error != refusal_) {
          refusal_ = error;
          isRefusalNew_ = true;
          wake_();
        }
      }
      wait();
    }
  });
}

void NatsConnection::close() {
  {
    const std::lock_guard lock(mutex_);
    gaveUp_ = true;
  }
  if (connecting_.joinable()) connecting_.join();
  if (isUp_) flush();
  destroyDiscarded();
  library_.reset();
  arrived_.reset();
  isUp_ = false;
}

int NatsConnection::descriptor() const {
  return library_ ? library_->signals->descriptor.load() : -1;
}

bool NatsConnection::wantsWrite() const {
  return library_ && library_->signals->wantsWrite;
}

std::string NatsConnection::server() const {
  char url[512] = "";
  if (!isUp_ || natsConnection_GetConnectedUrl(library_->connection, url, sizeof url) != NATS_OK)
    return "";
  return url;
}

std::int64_t NatsConnection::maxPayload() const {
  return library_ ? natsConnection_GetMaxPayload(library_->connection) : 0;
}

bool NatsConnection::subscribeAll(std::string& error) {
  for (const std::string& subject : subjects_) {
    natsSubscription* subscription = nullptr;
    natsStatus status =
        natsConnection_SubscribeSync(&subscription, library_->connection, subject.c_str());
    if (status == NATS_OK) {
      library_->subscriptions.push_back(subscription);
      status = natsSubscription_SetPendingLimits(subscription, -1, -1);
    }
    if (status == NATS_OK) continue;
    error = subject + ": " + natsStatus_GetText(status);
    return false;
  }
  return true;
}

int NatsConnection::queued() const {
  return natsConnection_Buffered(library_->connection);
}

// The library queues without a bound. What has been queued can't be taken back when the other side
// acknowledges it meanwhile, and the next small message waits behind it.
bool NatsConnection::hasRoom(std::size_t size) {
  const int most = size > kLittleMessage ? kMostQueued : kMostQueuedOfLittle;
  if (!isUp_) return false;
  if (queued() < most) return true;
  flush();
  return queued() < most;
}

bool NatsConnection::publish(const std::string& subject, const void* bytes, std::size_t size) {
  return isUp_ && queued() < kMostQueuedOfAll &&
         natsConnection_Publish(library_->connection, subject.c_str(), bytes,
                                static_cast<int>(size)) == NATS_OK;
}

bool NatsConnection::publish(const std::string& subject, const NatsHeaders& headers,
                             const void* bytes, std::size_t size) {
  if (!isUp_ || queued() >= kMostQueuedOfAll) return false;
  natsMsg* message = nullptr;
  natsStatus status = natsMsg_Create(&message, subject.c_str(), nullptr,
                                     static_cast<const char*>(bytes), static_cast<int>(size));
  for (const auto& [name, value] : headers)
    if (status == NATS_OK) status = natsMsgHeader_Set(message, name.c_str(), value.c_str());
  if (status == NATS_OK) status = natsConnection_PublishMsg(library_->connection, message);
  natsMsg_Destroy(message);
  return status == NATS_OK;
}

void NatsConnection::flush() {
  if (wantsWrite()) natsConnection_ProcessWriteEvent(library_->connection);
}

void NatsConnection::serve(bool isReadable, bool isWritable) {
  takeConnection();
  if (!library_) return;
  const std::int64_t now = clockNow();
  if (isReadable || now - std::exchange(servedAt_, now) > kOwnSilence) readAt_ = now;
  if (isWritable) natsConnection_ProcessWriteEvent(library_->connection);
  // What has been read and not been handed over has no bound but that no more is read meanwhile.
  if (isReadable && !hasMore_) natsConnection_ProcessReadEvent(library_->connection);
  handOver();
  tellState(isSilent(now));
}

bool NatsConnection::isSilent(std::int64_t now) const {
  return now - readAt_ >= options_.silence;
}

// The library's question is queued by a thread of its own, and leaves with the next pass.
std::int64_t NatsConnection::nextTimeout(std::int64_t now) const {
  if (!isUp_) return -1;
  const std::int64_t until = std::min(options_.silence, 2 * kPingInterval) - (now - readAt_);
  return until > 0 ? until
                   : std::clamp<std::int64_t>(readAt_ + options_.silence - now, 0, kPingInterval);
}

void NatsConnection::takeConnection() {
  if (library_) return;
  std::string refusal;
  {
    const std::lock_guard lock(mutex_);
    library_ = std::move(arrived_);
    if (std::exchange(isRefusalNew_, false)) refusal = refusal_;
  }
  if (!library_) {
    if (!refusal.empty()) listener_.natsState(false, refusal);
    return;
  }
  connectedAt_ = clockNow();
  std::string error;
  if (!subscribeAll(error)) {
    library_->signals->hasEnded = true;
    return;
  }
  isUp_ = true;
  servedAt_ = readAt_ = clockNow();
  listener_.natsState(true, server());
}

void NatsConnection::handOver() {
  hasMore_ = false;
  for (std::size_t i = 0; library_ && i < library_->subscriptions.size(); ++i) {
    natsSubscription* subscription = library_->subscriptions[i];
    int waiting = 0;
    if (natsSubscription_GetPending(subscription, &waiting, nullptr) != NATS_OK) continue;
    const bool isLong = waiting > kMostMessages;
    if (isLong) waiting = kMostMessages;
    while (waiting-- > 0) {
      natsMsg* message = nullptr;
      if (natsSubscription_NextMsg(&message, subscription, 0) != NATS_OK) break;
      listener_.natsMessage(NatsMessage(message));
      discard(message, static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    }
    hasMore_ = hasMore_ || isLong;
  }
  if (hasMore_) wake_();
}

// The library hands each message that is destroyed to a thread of its own, which it has to wake
// unless that is at work: many small ones go at once.
void NatsConnection::discard(void* message, std::size_t size) {
  discarded_.push_back(message);
  if (size > kLargeMessage || discarded_.size() >= kMostDiscarded) destroyDiscarded();
}

void NatsConnection::destroyDiscarded() {
  for (void* message : discarded_) natsMsg_Destroy(asMsg(message));
  discarded_.clear();
}

void NatsConnection::tellState(bool isSilent) {
  if (!library_->signals->hasEnded && !isSilent) return;
  const char* text = nullptr;
  if (isSilent)
    text = "the server doesn't answer any more";
  else
    natsConnection_GetLastError(library_->connection, &text);
  const std::string why = text && *text ? text : "the connection has ended";
  const bool wasUp = std::exchange(isUp_, false);
  library_.reset();
  connectInBackground(clockNow() - connectedAt_ < kShortConnection);
  if (wasUp) listener_.natsState(false, why);
}

}  // namespace bridge
