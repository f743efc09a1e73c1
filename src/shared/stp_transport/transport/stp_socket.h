// Sockets as transports use them, with the texts of their failures. A socket of 0 or below is no
// result; callers go by the status.
//
// There are two roads to a process of this machine: TCP, and a socket with a name of this machine
// (the local road), which is quicker. Once connected, they don't differ.
#pragma once

#include <cstdint>
#include <string>

#include "stp_transport/transport/stp_status.h"

/// A listening socket on `port` (0: the system picks), or 0. With `loopbackOnly` it is bound to
/// 127.0.0.1, otherwise to every address of the machine.
int getListenSocket(std::uint16_t port, STPStatus* status, bool loopbackOnly = false);
/// The same on a port that the system picks, which is stored.
int getFreeListenSocket(std::uint16_t* port, STPStatus* status, bool loopbackOnly = false);
void closeListenSocket(int fd, STPStatus* status);
/// A new connection, or -1. With a good status nobody was there.
int acceptClient(int listenFD, bool closeListener, STPStatus* status);
/// A connected socket, or 0. Waits for it (stp_connect_attempt.h).
int connectToServer(const char* host, std::uint16_t port, STPStatus* status,
                    bool takesLocalRoad = true);

/// False if the environment variable HUBLINK_TCP_ONLY is set, for measurements.
bool stpUsesLocalRoad();
/// The name beside a port of this user's.
std::string stpLocalName(std::uint16_t port);
/// Shuts down and closes; failures are printed to the standard error stream.
void closeSocket(int fd);
