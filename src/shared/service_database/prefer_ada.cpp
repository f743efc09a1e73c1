#include "service_database/prefer_ada.h"

#include "indgen/find.h"
#include "indgen/path.h"
#include "indgen/program.h"

namespace {

PreferAdaSettings settings;

bool isInstalled(const char* program) {
  return gen_file_kind(gen_join(gen_program_dir(), program)) == 1;
}

}  // namespace

PreferAdaSettings& preferAdaSettings() {
  return settings;
}

bool isPreferAda() {
  if (!settings.preferAdaSet && !settings.preferAdaProbed) {
    settings.preferAdaProbed = true;
    settings.preferAda = !isInstalled("vestrel") && isInstalled("adavestrel");
  }
  return settings.preferAda;
}

void setPreferAda(bool preferAda) {
  settings.preferAdaSet = true;
  settings.preferAda = preferAda;
}
