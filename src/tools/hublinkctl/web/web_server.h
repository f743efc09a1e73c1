// Answers browsers and scrapers with what stands on a board: metrics, JSON, events as they happen,
// and the page. It has threads of its own.
//
// It answers only those who mean it: requests that a page of another origin has a browser make, or
// that come by another name for this address, are refused, and so are those of other users of this
// machine. Nothing can be changed through it.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "tools/hublinkctl/web/board.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace hublinkctl {

/// Where to listen.
struct WebAddress {
  std::string host;  ///< an IPv4 address
  int port = 0;      ///< 0: the system picks one

  bool isLoopback() const { return host.rfind("127.", 0) == 0; }
  bool isEveryAddress() const { return host == "0.0.0.0"; }
};
/// Of "ADDRESS:PORT", or "localhost:PORT".
std::optional<WebAddress> webAddressIn(const std::string& text);

class WebServer {
 public:
  /// `board` must outlive it. With `anyUser` it answers other users of this machine too.
  WebServer(Board& board, bool anyUser);
  /// Stops, for which the board must have been closed.
  ~WebServer();
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  /// Listens and answers from here on; false if the address can't be had.
  bool start(const WebAddress& address);
  int port() const { return address_.port; }

 private:
  void addAnswers();
  void answerEvents(const httplib::Request& request, httplib::Response& response);
  /// Why a request is refused; null if it isn't.
  const char* refusalOf(const httplib::Request& request) const;
  bool isOwnHost(const std::string& host) const;
  bool isOfTakenUser(const httplib::Request& request) const;

  Board& board_;
  const bool anyUser_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  WebAddress address_;
  std::atomic<int> streams_ = 0;
};

}  // namespace hublinkctl
