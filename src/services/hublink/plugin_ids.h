// Who gets which plugin ID. IDs count up over the life of the hub; once they are used up, those
// that nobody has ever learned of are given out again, and without any of them nobody more is
// taken.
#pragma once

#include <cstdint>
#include <deque>

class HubLog;

class PluginIDs {
 public:
  explicit PluginIDs(HubLog& log) : log_(log) {}

  bool areLeft() const { return last_ < limit_ || !unlearned_.empty(); }
  /// The next ID. Whoever needs one asks areLeft() first.
  std::int32_t next();
  /// An ID that no plugin knows of is free again.
  void giveBack(std::int32_t pluginID) { unlearned_.push_back(pluginID); }
  /// No ID is left, or once none was. That has been told.
  bool areUsedUp() const { return usedUp_; }
  /// How many have been given out, and how many there are.
  std::int32_t used() const { return last_; }
  std::int32_t limit() const { return limit_; }
  /// The last ID before old ones are given out again; less for tests.
  void setLimit(std::int32_t pluginID) { limit_ = pluginID; }

 private:
  void noteUsedUp();

  HubLog& log_;
  std::int32_t last_ = 0;  // given out for the first time
  std::int32_t limit_ = 65535;
  std::deque<std::int32_t> unlearned_;
  bool usedUp_ = false;
};
