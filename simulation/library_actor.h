// A plugin on the library that plugins are written with. It waits within its handlers, asks from
// there, and closes what it likes.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hublink_plugin/hublink_plugin.h"
#include "simulation/actor.h"
#include "simulation/talk.h"

class LibraryActor : public Actor {
 public:
  using Actor::Actor;
  int run() override;
  bool isLibrary() const override { return true; }
  bool isAwake() const override { return !isAsleep_ && calls_ == 0; }

 private:
  using LinkPtr = std::shared_ptr<HublinkLink>;
  using LinkKey = std::pair<std::int32_t, std::int32_t>;  // own and other RN
  struct Held {
    LinkPtr link;
    TalkEnd end;
  };

  void runErrand();
  bool beConnected(HublinkPlugin& plugin);
  void obey(const Order& order);
  void provide(const std::string& service);
  void request(const RequestShape& shape, int milliseconds);
  void take(const LinkPtr& link, bool isAsker);
  void linger();
  bool accept();
  void sendPackets(std::uint64_t choice);
  void speak(std::uint64_t choice);
  std::int32_t begin(Question question);

  HublinkPlugin* plugin_ = nullptr;
  std::int32_t lastCookie_ = 0;
  std::vector<std::int32_t> services_;
  std::map<LinkKey, Held> links_;
  int nested_ = 0;
  int calls_ = 0;  // on a link, which put off what else comes
  bool isAsleep_ = false;
  bool isSending_ = false;
};
