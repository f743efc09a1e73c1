// What the three loops of this folder serve: the service "Digest". A packet is a text, and its
// digest of 16 digits goes back, made by a thread, so that the loop stays free for others.
// Meanwhile each requester is sent a "." by a timer of the loop.
//
//   poll_loop | glib_loop | libuv_loop [-hl_zone ZONE]
//
// Its requesters end it: it is over when the last link has ended, or the connection to the hub.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "hublink_plugin/hub_finder.h"

/// Makes digests in a thread of its own, which sees neither the plugin's links nor its tables: it
/// is given numbers and texts, and hands over what is to be done with the results.
class DigestMaker {
 public:
  explicit DigestMaker(HublinkPlugin& plugin);
  /// Ends the thread; what hasn't been made by then won't be.
  ~DigestMaker();
  DigestMaker(const DigestMaker&) = delete;
  DigestMaker& operator=(const DigestMaker&) = delete;

  using Taker = std::function<void(const std::string& digest)>;
  /// `taker` is called in the plugin's thread.
  void make(std::string text, Taker taker);

 private:
  struct Job {
    std::string text;
    Taker taker;
  };
  void work();

  HublinkPlugin& plugin_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Job> jobs_;
  bool isOver_ = false;
  std::thread thread_;
};

class DigestService {
 public:
  /// How often the timer of the loop is to call beat().
  static constexpr int kBeat = 100;  // ms

  /// Connects to the hub and offers the service. `over` is called once, by step(), when the loop is
  /// to end. False, which is told, if that failed.
  bool start(int argc, char** argv, std::function<void()> over);
  HublinkPlugin& plugin() { return plugin_; }
  /// One step of the plugin, when its descriptor can be read or its time has come.
  void step();
  void beat();
  /// Tells what was done; the program's exit code.
  int finish();

 private:
  void serveLink(const std::shared_ptr<HublinkLink>& link);
  void answer(int requester, const std::string& digest);
  void end(int exitCode);

  HublinkPlugin plugin_;
  DigestMaker maker_{plugin_};
  std::map<int, std::shared_ptr<HublinkLink>> links_;  // of requesters, by a number of ours
  std::function<void()> over_;
  int exitCode_ = 0;
  int requesters_ = 0, answers_ = 0, beats_ = 0, steps_ = 0;
};
