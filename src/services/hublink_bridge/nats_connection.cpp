#include "services/hublink_bridge/nats_connection.h"

#include <nats/nats.h>

#include <cstdlib>

namespace bridge {

namespace {

// Milliseconds: how long a connect may take, how long to wait between two rounds of servers, and
// how soon a dead network is noticed (kPingInterval times kMostPings).
constexpr std::int64_t kConnectTime = 2000;
constexpr std::int64_t kReconnectWait = 200;
constexpr std::int64_t kReconnectJitter = 100;
constexpr std::int64_t kPingInterval = 1500;
constexpr int kMostPings = 2;
// Bytes of one read, and of what is written at once.
constexpr int kBufferSize = 256 << 10;
// Bytes that are kept while there is no connection: as few as there can be.
constexpr int kNoReconnectBuffer = 1;
// How many messages serve() hands over before it lets others have their turn.
constexpr int kMostMessages = 512;

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

struct NatsConnection::Library {
  natsOptions* options = nullptr;
  natsConnection* connection = nullptr;
  std::vector<natsSubscription*> subscriptions;

  ~Library() {
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
    auto* self = static_cast<NatsConnection*>(loop);
    *user = self;
    self->wantsWrite_ = false;
    self->descriptor_ = socket;
    self->wake_();
    return NATS_OK;
  }
  static natsStatus read(void* user, bool add) {
    auto* self = static_cast<NatsConnection*>(user);
    if (add) return NATS_OK;
    self->descriptor_ = -1;
    self->wake_();
    return NATS_OK;
  }
  static natsStatus write(void* user, bool add) {
    static_cast<NatsConnection*>(user)->wantsWrite_ = add;
    return NATS_OK;
  }
  static natsStatus detach(void* user) {
    static_cast<NatsConnection*>(user)->descriptor_ = -1;
    return NATS_OK;
  }
  static void changed(natsConnection*, void* closure) {
    auto* self = static_cast<NatsConnection*>(closure);
    ++self->changes_;
    self->wake_();
  }
  // A slow subscription can't be: those here have no limits.
  static void failed(natsConnection*, natsSubscription*, natsStatus, void*) {}
};

NatsConnection::NatsConnection(NatsListener& listener, std::function<void()> wake)
    : listener_(listener), wake_(std::move(wake)) {}

NatsConnection::~NatsConnection() {
  close();
}

bool NatsConnection::connect(const NatsOptions& options, std::string& error) {
  close();
  auto library = std::make_unique<Library>();
  natsOptions*& opts = library->options;
  std::vector<const char*> urls;
  for (const std::string& url : options.urls) urls.push_back(url.c_str());
  natsStatus status = natsOptions_Create(&opts);
  const auto set = [&](natsStatus outcome, const std::string& what) {
    if (status != NATS_OK || outcome == NATS_OK) return;
    status = outcome;
    const char* text = nats_GetLastError(nullptr);
    error = what + ": " + (text && *text ? text : natsStatus_GetText(outcome));
  };
  set(natsOptions_SetServers(opts, urls.data(), static_cast<int>(urls.size())), "NATS server");
  set(natsOptions_SetNoRandomize(opts, true), "NATS");
  set(natsOptions_SetName(opts, options.clientName.c_str()), "NATS");
  set(natsOptions_SetTimeout(opts, kConnectTime), "NATS");
  set(natsOptions_SetMaxReconnect(opts, -1), "NATS");
  set(natsOptions_SetReconnectWait(opts, kReconnectWait), "NATS");
  set(natsOptions_SetReconnectJitter(opts, kReconnectJitter, kReconnectJitter), "NATS");
  set(natsOptions_SetReconnectBufSize(opts, kNoReconnectBuffer), "NATS");
  set(natsOptions_SetPingInterval(opts, kPingInterval), "NATS");
  set(natsOptions_SetMaxPingsOut(opts, kMostPings), "NATS");
  set(natsOptions_SetNoEcho(opts, true), "NATS");
  set(natsOptions_SetIOBufSize(opts, kBufferSize), "NATS");
  set(natsOptions_SetSendAsap(opts, true), "NATS");
  set(natsOptions_DisableNoResponders(opts, true), "NATS");
  set(natsOptions_SetErrorHandler(opts, LibraryCalls::failed, this), "NATS");
  set(natsOptions_SetDisconnectedCB(opts, LibraryCalls::changed, this), "NATS");
  set(natsOptions_SetReconnectedCB(opts, LibraryCalls::changed, this), "NATS");
  set(natsOptions_SetClosedCB(opts, LibraryCalls::changed, this), "NATS");
  set(natsOptions_SetEventLoop(opts, this, LibraryCalls::attach, LibraryCalls::read,
                               LibraryCalls::write, LibraryCalls::detach),
      "NATS");
  if (!options.tlsCA.empty() || !options.tlsCert.empty())
    set(natsOptions_SetSecure(opts, true), "TLS");
  if (!options.tlsCA.empty())
    set(natsOptions_LoadCATrustedCertificates(opts, options.tlsCA.c_str()), options.tlsCA);
  if (!options.tlsCert.empty())
    set(natsOptions_LoadCertificatesChain(opts, options.tlsCert.c_str(), options.tlsKey.c_str()),
        options.tlsCert);
  if (!options.credentials.empty())
    set(natsOptions_SetUserCredentialsFromFiles(opts, options.credentials.c_str(), nullptr),
        options.credentials);
  if (!options.user.empty())
    set(natsOptions_SetUserInfo(opts, options.user.c_str(), options.password.c_str()), "user");
  if (status != NATS_OK) return false;

  status = natsConnection_Connect(&library->connection, opts);
  if (status == NATS_NO_SERVER || status == NATS_TIMEOUT) {
    set(natsOptions_SetRetryOnFailedConnect(opts, true, LibraryCalls::changed, this), "NATS");
    status = natsConnection_Connect(&library->connection, opts);
  }
  if (status != NATS_OK && status != NATS_NOT_YET_CONNECTED) {
    const char* text = nats_GetLastError(nullptr);
    error = "NATS: " + std::string(text && *text ? text : natsStatus_GetText(status));
    return false;
  }
  library_ = std::move(library);
  ++changes_;
  return true;
}

void NatsConnection::close() {
  if (library_) flush();
  library_.reset();
  descriptor_ = -1;
  wantsWrite_ = false;
  isUp_ = false;
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

bool NatsConnection::subscribe(const std::string& subject, std::string& error) {
  natsSubscription* subscription = nullptr;
  natsStatus status =
      natsConnection_SubscribeSync(&subscription, library_->connection, subject.c_str());
  if (status == NATS_OK) {
    library_->subscriptions.push_back(subscription);
    status = natsSubscription_SetPendingLimits(subscription, -1, -1);
  }
  if (status != NATS_OK) error = subject + ": " + natsStatus_GetText(status);
  return status == NATS_OK;
}

bool NatsConnection::publish(const std::string& subject, const void* bytes, std::size_t size) {
  return isUp_ && natsConnection_Publish(library_->connection, subject.c_str(), bytes,
                                         static_cast<int>(size)) == NATS_OK;
}

bool NatsConnection::publish(const std::string& subject, const NatsHeaders& headers,
                             const void* bytes, std::size_t size) {
  if (!isUp_) return false;
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
  if (wantsWrite_ && library_) natsConnection_ProcessWriteEvent(library_->connection);
}

void NatsConnection::serve(bool isReadable, bool isWritable) {
  if (!library_) return;
  if (isWritable) natsConnection_ProcessWriteEvent(library_->connection);
  if (isReadable) natsConnection_ProcessReadEvent(library_->connection);
  tellState();
  handOver();
}

void NatsConnection::handOver() {
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
      natsMsg_Destroy(message);
    }
    if (isLong) wake_();
  }
}

void NatsConnection::tellState() {
  const unsigned changes = changes_;
  if (changes == toldChanges_) return;
  toldChanges_ = changes;
  natsConnection* connection = library_->connection;
  const bool isUp = natsConnection_Status(connection) == NATS_CONN_STATUS_CONNECTED;
  // An end and a new connection that were seen together are told one after the other.
  if (isUp_) {
    isUp_ = false;
    const char* text = nullptr;
    natsConnection_GetLastError(connection, &text);
    listener_.natsState(false, text && *text ? text : "the connection has ended");
  }
  if (!isUp) return;
  isUp_ = true;
  listener_.natsState(true, server());
}

}  // namespace bridge
