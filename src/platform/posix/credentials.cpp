// The kernel keeps with a socket of this machine's abstract namespace who is at the other end. A
// TCP connection within this machine has both its ends in the kernel's socket table, each with the
// user whose process has made it. The table is asked for one entry by its four numbers over
// netlink, or read as a text where that isn't to be had.
//
// The end of a process that has closed its socket, or hasn't accepted it yet, may stand in the
// table for a while longer, as user 0 and without an inode. Such an entry tells nothing.
#include "platform/credentials.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <memory>
#include <optional>

#include "platform/posix/named_socket.h"

namespace platform {
namespace {

// One end's address and port, both in network order.
struct End {
  in_addr_t address = 0;
  in_port_t port = 0;
  bool operator==(const End&) const = default;
};

struct Entry {
  End local;
  End remote;
  int state = 0;
  UserId user = 0;
  unsigned long inode = 0;

  bool tellsUser() const { return inode != 0; }
};

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};

using NameCall = int (*)(int, sockaddr*, socklen_t*);

bool endOf(NameCall call, Socket socket, End& end) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  if (call(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return false;
  end = {address.sin_addr.s_addr, address.sin_port};
  return address.sin_family == AF_INET;
}

// Where any address passes for this machine's, connections from elsewhere are local ones of nobody,
// which errs on the safe side.
bool isOfThisMachine(in_addr_t address, in_addr_t own) {
  return address == own || isOwnAddress(ntohl(address));
}

// Who was at the other end of a connection by name when it was made.
bool askSocket(Socket socket, PeerUser& peer) {
  if (!isNamed(socket)) return false;
  ucred credentials{};
  socklen_t size = sizeof credentials;
  peer.byName = true;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0)
    peer = {PeerUser::Kind::known, credentials.uid, true, credentials.pid};
  return true;
}

// What came of asking.
enum class Answer { found, absent, unavailable };

// Opened once, so that a process that is out of descriptors can still ask.
int netlinkSocket() {
  static int number = -1;
  if (number < 0) number = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  return number;
}

Answer askNetlink(const End& local, const End& remote, Entry& entry) {
  const int netlink = netlinkSocket();
  struct {
    nlmsghdr header;
    inet_diag_req_v2 body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = AF_INET;
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0u;
  request.body.id.idiag_src[0] = local.address;
  request.body.id.idiag_sport = local.port;
  request.body.id.idiag_dst[0] = remote.address;
  request.body.id.idiag_dport = remote.port;
  request.body.id.idiag_cookie[0] = request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  if (send(netlink, &request, sizeof request, 0) != sizeof request) return Answer::unavailable;
  // The answer is there when the call above comes back.
  alignas(nlmsghdr) unsigned char reply[8192];
  const ssize_t size = recv(netlink, reply, sizeof reply, MSG_DONTWAIT);
  nlmsghdr header{};
  if (size < static_cast<ssize_t>(sizeof header)) return Answer::unavailable;
  memcpy(&header, reply, sizeof header);
  if (header.nlmsg_type == NLMSG_ERROR) {
    nlmsgerr failure{};
    if (size < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof failure)) return Answer::unavailable;
    memcpy(&failure, reply + NLMSG_HDRLEN, sizeof failure);
    return failure.error == -ENOENT ? Answer::absent : Answer::unavailable;
  }
  inet_diag_msg message{};
  if (header.nlmsg_type != SOCK_DIAG_BY_FAMILY ||
      size < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof message))
    return Answer::unavailable;
  memcpy(&message, reply + NLMSG_HDRLEN, sizeof message);
  entry.local = {message.id.idiag_src[0], message.id.idiag_sport};
  entry.remote = {message.id.idiag_dst[0], message.id.idiag_dport};
  entry.state = message.idiag_state;
  entry.user = message.idiag_uid;
  entry.inode = message.idiag_inode;
  return Answer::found;
}

bool isWanted(const Entry& entry, const End& local, const End& remote) {
  if (entry.state == TCP_LISTEN)
    return entry.local.port == local.port &&
           (entry.local.address == local.address || entry.local.address == INADDR_ANY);
  return entry.local == local && entry.remote == remote;
}

// As netlink finds it: the connection, else who listens there.
std::optional<Entry> readTable(const End& local, const End& remote) {
  const std::unique_ptr<FILE, FileCloser> table(fopen("/proc/net/tcp", "re"));
  std::optional<Entry> listening;
  char line[512];
  while (table && fgets(line, sizeof line, table.get())) {
    Entry entry;
    unsigned localPort = 0, remotePort = 0, state = 0;
    if (sscanf(line, "%*d: %X:%X %X:%X %X %*X:%*X %*X:%*X %*X %u %*d %lu", &entry.local.address,
               &localPort, &entry.remote.address, &remotePort, &state, &entry.user,
               &entry.inode) != 7)
      continue;
    entry.local.port = htons(static_cast<in_port_t>(localPort));
    entry.remote.port = htons(static_cast<in_port_t>(remotePort));
    entry.state = static_cast<int>(state);
    if (!isWanted(entry, local, remote)) continue;
    if (entry.state != TCP_LISTEN) return entry;
    listening = entry;
  }
  return listening;
}

std::optional<Entry> lookUp(const End& local, const End& remote) {
  // A kernel without this part of netlink gives the same answer as one that finds nothing. Where it
  // has found something before, it is believed: the text of a long table costs time, which nobody
  // is to have this process spend at will.
  static bool netlinkWorks = false;
  Entry entry;
  const Answer answer = askNetlink(local, remote, entry);
  netlinkWorks |= answer == Answer::found;
  if (answer == Answer::found && isWanted(entry, local, remote)) return entry;
  if (netlinkWorks && answer != Answer::unavailable) return std::nullopt;
  return readTable(local, remote);
}

PeerUser known(UserId user) {
  return {PeerUser::Kind::known, user};
}

PeerUser clientBetween(const End& near, const End& far) {
  if (!isOfThisMachine(far.address, near.address)) return {PeerUser::Kind::elsewhere};
  const std::optional<Entry> entry = lookUp(far, near);
  if (!entry || entry->state != TCP_ESTABLISHED || !entry->tellsUser()) return {};
  return known(entry->user);
}

bool endOf(const TcpEnd& named, End& end) {
  end.port = htons(named.port);
  in_addr address{};
  const bool isAddress = inet_pton(AF_INET, named.address.c_str(), &address) == 1;
  end.address = address.s_addr;
  return isAddress;
}

}  // namespace

UserId currentUser() {
  return geteuid();
}

PeerUser userOfClient(Socket accepted) {
  PeerUser peer;
  if (askSocket(accepted, peer)) return peer;
  End near, far;
  if (!endOf(getsockname, accepted, near) || !endOf(getpeername, accepted, far)) return {};
  return clientBetween(near, far);
}

PeerUser userOfClient(const TcpEnd& client, const TcpEnd& own) {
  End near, far;
  return endOf(own, near) && endOf(client, far) ? clientBetween(near, far) : PeerUser();
}

// Between its arrival and the accept the other end has no owner yet: whoever listens there is it.
// It may be accepted, and the listener closed, between two looks.
PeerUser userOfServer(Socket connected) {
  PeerUser peer;
  if (askSocket(connected, peer)) return peer;
  End near, far;
  if (!endOf(getsockname, connected, near) || !endOf(getpeername, connected, far)) return {};
  if (!isOfThisMachine(far.address, near.address)) return {PeerUser::Kind::elsewhere};
  for (const End& client : {near, End(), near}) {
    const std::optional<Entry> entry = lookUp(far, client);
    if (entry && entry->tellsUser() &&
        (entry->state == TCP_ESTABLISHED || entry->state == TCP_LISTEN))
      return known(entry->user);
  }
  return {};
}

}  // namespace platform
