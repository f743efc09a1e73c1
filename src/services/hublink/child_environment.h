// The environment that started plugins get, which is the hub's own: what plugins and service
// descriptions change in it holds for all later children.
#pragma once

#include <vector>

#include "service_database/plugin_record.h"

class HubLog;

class ChildEnvironment {
 public:
  explicit ChildEnvironment(HubLog& log) : log_(log) {}

  /// Nothing for a null value; a name that can't be a variable's is refused, with a line in the
  /// log.
  void setVariable(const char* variable, const char* value);
  /// Of a service's environment only LIBPATH has an effect: it goes to the end of the path on which
  /// children find their programs and libraries, anew on each use.
  void apply(const std::vector<NameAndValue>& environment);

 private:
  void change(const char* variable, const char* value);

  HubLog& log_;
};
