// TCP sockets as transports use them, with the texts of their failures. A socket of 0 or below is
// no result; callers go by the status.
#pragma once

#include <cstdint>

#include "stp_transport/transport/stp_status.h"

/// Milliseconds that a connect may take.
inline constexpr int STP_CONNECT_LIMIT = 5000;

/// A listening socket on `port` (0: the system picks), or 0. With `loopbackOnly` it is bound to
/// 127.0.0.1, otherwise to every address of the machine.
int getListenSocket(std::uint16_t port, STPStatus* status, bool loopbackOnly = false);
/// The same on a port that the system picks, which is stored.
int getFreeListenSocket(std::uint16_t* port, STPStatus* status, bool loopbackOnly = false);
void closeListenSocket(int fd, STPStatus* status);
/// A new connection, or -1. With a good status nobody was there.
int acceptClient(int listenFD, bool closeListener, STPStatus* status);
/// A connected socket, or 0.
int connectToServer(const char* host, std::uint16_t port, STPStatus* status);
/// Shuts down and closes; failures are printed to the standard error stream.
void closeSocket(int fd);
