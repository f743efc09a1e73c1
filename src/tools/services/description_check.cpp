#include "tools/services/description_check.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "indgen/quote.h"
#include "indgen/text.h"

namespace services {
namespace {

enum class Form : std::uint8_t { text, boolean, number, seconds, texts, entries };

// A name that means something in a block, and how it is given. Entries are a block each, with names
// of their own.
struct Key {
  const char* name;
  Form form;
  std::span<const Key> within;
};

constexpr Key kArgumentKeys[] = {{"Arg", Form::text, {}}};
constexpr Key kServiceKeys[] = {{"ServiceName", Form::text, {}},
                                {"Priority", Form::number, {}},
                                {"ServiceData", Form::texts, {}}};
constexpr Key kPluginKeys[] = {{"ExecName", Form::text, {}},
                               {"AdaExecName", Form::text, {}},
                               {"PluginName", Form::text, {}},
                               {"Persistent", Form::boolean, {}},
                               {"SharedObject", Form::boolean, {}},
                               {"LaunchTimeout", Form::seconds, {}},
                               {"PluginData", Form::texts, {}},
                               {"Environment", Form::texts, {}},
                               {"Arguments", Form::entries, kArgumentKeys},
                               {"ServicesProvided", Form::entries, kServiceKeys}};
constexpr Key kFileKeys[] = {{"Services", Form::entries, kPluginKeys}};

constexpr const char* kServiceExample = "ServicesProvided { { ServiceName = \"...\" } }";

bool isBlock(const Key& key) {
  return key.form == Form::texts || key.form == Form::entries;
}

std::string quoted(const char* text) {
  return gen_quote(text).get();
}

// How many characters have to be changed, put in or left out; case doesn't count.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const bool same = gen_lower_char(a[i]) == gen_lower_char(b[j]);
      const std::size_t changed = diagonal + (same ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

// The name that was probably meant; null if none is near.
const Key* nearest(std::string_view name, std::span<const Key> keys) {
  for (const Key& key : keys) {
    const std::string_view known = key.name;
    const std::size_t limit = 1 + known.size() / 6;
    if (name.size() + limit >= known.size() && name.size() <= known.size() + limit &&
        distance(name, known) <= limit)
      return &key;
  }
  return nullptr;
}

const Key* find(std::string_view name, std::span<const Key> keys) {
  const auto key =
      std::find_if(keys.begin(), keys.end(), [&](const Key& known) { return name == known.name; });
  return key == keys.end() ? nullptr : &*key;
}

// An attribute or block as it should be written.
std::string example(const Key& key) {
  const std::string name = key.name;
  switch (key.form) {
    case Form::text:
      return name + " = \"...\"";
    case Form::boolean:
      return name + " = yes";
    case Form::number:
      return name + " = 1";
    case Form::seconds:
      return name + " = 30";
    case Form::texts:
      return name + " { NAME = \"...\" }";
    case Form::entries:
      break;
  }
  return name + " { { " + example(key.within[0]) + " } }";
}

// What the hub takes in place of a value in quotes.
const char* withoutValue(Form form) {
  return form == Form::boolean ? "no" : form == Form::number ? "0" : "none";
}

// What was given as a text, as it should be written if it is one word.
std::string unquotedOf(const Key& key, const ut_attribute* a) {
  const char* given = ut_attribute_list::attribute_str(a);
  const std::string_view text = given ? given : "";
  const auto isFit = [&](char c) {
    return key.form == Form::boolean ? gen_lower_char(c) >= 'a' && gen_lower_char(c) <= 'z'
                                     : c >= '0' && c <= '9';
  };
  const bool word = !text.empty() && std::all_of(text.begin(), text.end(), isFit);
  return word ? key.name + (" = " + std::string(text)) : example(key);
}

class Checker {
 public:
  explicit Checker(const BlockPlaces& places) : places_(places) {}

  std::vector<Finding> check() {
    checkFile();
    checkUnclosed();
    checkOpenedAgain();
    return std::move(findings_);
  }

 private:
  void add(Place place, std::string text) {
    findings_.push_back({Severity::warning, std::move(place), std::move(text)});
  }

  // Of the rest of the file only what was probably meant to count.
  void checkFile() {
    const ut_attribute_list& root = places_.root();
    const ut_attribute_list* services = root.find_child("Services");
    const auto check = [&](const char* name, const Place& place) {
      if (std::strcmp(name, "Services") != 0 && nearest(name, kFileKeys))
        addUnknown(name, kFileKeys, place);
      else if (!services && find(name, kPluginKeys))
        add(place, quoted(name) + " counts only within Services { ... }");
    };
    for (const ut_attribute* a = root.first_attribute(); a; a = root.next_attribute(a)) {
      const char* name = ut_attribute_list::attribute_name(a);
      if (std::strcmp(name, "Services") == 0)
        add(places_.of(root, name), "\"Services\" is a block: write Services { ... }");
      else
        check(name, places_.of(root, name));
    }
    const ut_attribute_list* child = root.first_child();
    for (; child; child = child->next_sibling()) check(child->name(), places_.of(*child));
    if (services) checkServices(*services);
  }

  void checkServices(const ut_attribute_list& services) {
    if (services.str_value("ExecName")) {
      checkPlugin(services);
      return;
    }
    const std::size_t before = findings_.size();
    for (const ut_attribute* a = services.first_attribute(); a; a = services.next_attribute(a))
      checkOutside(services, a);
    const ut_attribute_list* section = services.first_child();
    if (!section && findings_.size() == before)
      add(places_.of(services), "\"Services\" describes no plugin: write ExecName = \"...\" and " +
                                    std::string(kServiceExample) + " within it");
    for (; section; section = section->next_sibling()) {
      const Key* key = find(section->name(), kPluginKeys);
      if (key && isBlock(*key))
        add(places_.of(*section), quoted(section->name()) +
                                      " is taken for a plugin, since \"Services\" has no ExecName: "
                                      "write ExecName = \"...\" beside it");
      else
        checkPlugin(*section);
    }
  }

  // An attribute beside the blocks of plugins.
  void checkOutside(const ut_attribute_list& services, const ut_attribute* a) {
    const char* name = ut_attribute_list::attribute_name(a);
    if (std::strcmp(name, "ExecName") == 0)
      checkKind(services, a, kPluginKeys[0]);
    else if (find(name, kPluginKeys))
      add(places_.of(services, name),
          quoted(name) + " stands outside of a plugin's block: write it beside an ExecName");
    else
      addUnknown(name, kPluginKeys, places_.of(services, name));
  }

  void checkPlugin(const ut_attribute_list& section) {
    servicesSpokenOf_ = false;
    checkBlock(section, kPluginKeys);
    const ut_attribute_list* provided = section.find_child("ServicesProvided");
    if (!section.str_value("ExecName") || servicesSpokenOf_ ||
        (provided && provided->first_child()))
      return;
    add(places_.of(section),
        "the plugin provides no service, so that nobody can ask for it: write " +
            std::string(kServiceExample));
  }

  void checkBlock(const ut_attribute_list& block, std::span<const Key> keys) {
    for (const ut_attribute* a = block.first_attribute(); a; a = block.next_attribute(a)) {
      const char* name = ut_attribute_list::attribute_name(a);
      const Key* key = find(name, keys);
      if (key)
        checkKind(block, a, *key);
      else
        addUnknown(name, keys, places_.of(block, name));
    }
    const ut_attribute_list* child = block.first_child();
    for (; child; child = child->next_sibling()) {
      const Key* key = find(child->name(), keys);
      if (!key)
        addUnknownBlock(*child, keys);
      else if (key->form == Form::entries)
        checkEntries(*child, *key);
      else if (key->form == Form::texts)
        checkTexts(*child);
      else
        add(places_.of(*child), quoted(key->name) + " is no block: write " + example(*key));
    }
  }

  void checkKind(const ut_attribute_list& block, const ut_attribute* a, const Key& key) {
    const ut_attribute_type type = ut_attribute_list::attribute_type(a);
    const Place place = places_.of(block, key.name);
    const std::string name = quoted(key.name);
    if (isBlock(key)) {
      speakOf(key);
      add(place, name + " is a block: write " + example(key));
    } else if (key.form == Form::text && type != ut_attribute_type::str) {
      add(place,
          name + " has a value that is no text, which counts as none: write " + example(key));
    } else if (key.form != Form::text && type != ut_attribute_type::int32) {
      add(place, name + " has a value in quotes, which counts as " + withoutValue(key.form) +
                     ": write " + unquotedOf(key, a));
    }
  }

  void checkEntries(const ut_attribute_list& list, const Key& key) {
    for (const ut_attribute* a = list.first_attribute(); a; a = list.next_attribute(a)) {
      speakOf(key);
      const char* name = ut_attribute_list::attribute_name(a);
      add(places_.of(list, name),
          quoted(name) + " stands outside of a block of its own: write " + example(key));
    }
    const ut_attribute_list* entry = list.first_child();
    for (; entry; entry = entry->next_sibling()) checkBlock(*entry, key.within);
  }

  void checkTexts(const ut_attribute_list& block) {
    for (const ut_attribute* a = block.first_attribute(); a; a = block.next_attribute(a)) {
      const char* name = ut_attribute_list::attribute_name(a);
      if (!ut_attribute_list::attribute_str(a))
        add(places_.of(block, name),
            quoted(name) +
                " has a value that is no text and is passed over: write it in double quotes");
    }
    const ut_attribute_list* child = block.first_child();
    for (; child; child = child->next_sibling())
      add(places_.of(*child), "the block is passed over: " + quoted(block.name()) +
                                  " holds texts alone, as NAME = \"...\"");
  }

  void addUnknownBlock(const ut_attribute_list& block, std::span<const Key> keys) {
    if (block.str_value("ExecName"))
      add(places_.of(block),
          "the plugin is passed over, since it stands within the block of another: write a block "
          "for "
          "each, closed by a \"}\"");
    else
      addUnknown(block.name(), keys, places_.of(block));
  }

  void addUnknown(const char* name, std::span<const Key> keys, Place place) {
    const std::string what = *name ? quoted(name) + " means nothing here: write "
                                   : "a block without a name means nothing here: write ";
    if (const Key* meant = nearest(name, keys)) {
      speakOf(*meant);
      add(std::move(place), what + meant->name);
      return;
    }
    std::string names;
    for (const Key& key : keys) {
      if (!names.empty()) names += &key == &keys.back() ? " or " : ", ";
      names += key.name;
    }
    add(std::move(place), what + names);
  }

  void speakOf(const Key& key) {
    if (std::strcmp(key.name, "ServicesProvided") == 0) servicesSpokenOf_ = true;
  }

  void checkUnclosed() {
    const ut_attribute_list* block = places_.unclosed_block();
    if (!block) return;
    const int count = places_.unclosed_blocks();
    std::string text = "the block that begins here is never closed: write a \"}\" at its end";
    if (count > 1) text += ", and " + std::to_string(count - 1) + " more for those around it";
    add(places_.of(*block), std::move(text));
  }

  // Where each block is an entry, two of one name were meant to be two.
  void checkOpenedAgain() {
    for (const BlockPlaces::Again& again : places_.opened_again()) {
      const ut_attribute_list* parent = again.block->parent();
      const std::string_view around = parent->name();
      const bool entry = around == "ServicesProvided" || around == "Arguments" ||
                         (around == "Services" && !find(again.block->name(), kPluginKeys));
      if (entry)
        add(again.place, "there is a block " + quoted(again.block->name()) +
                             " already, and both are one: write them without a name");
    }
  }

  const BlockPlaces& places_;
  std::vector<Finding> findings_;
  bool servicesSpokenOf_ = false;  // something is wrong with the plugin's services
};

}  // namespace

std::vector<Finding> checkDescription(const BlockPlaces& places) {
  return Checker(places).check();
}

std::vector<Finding> checkText(const BlockPlaces& places) {
  std::vector<Finding> findings;
  for (const std::string& file : places.marked_files())
    findings.push_back(
        {Severity::error,
         {file, 1},
         "begins with a byte-order mark, which a hub takes for a statement: write the "
         "file without it"});
  for (const Place& place : places.unclosed_texts())
    findings.push_back(
        {Severity::warning, place,
         "a text ends with its line, since nothing closes it: write a \" behind it"});
  return findings;
}

}  // namespace services
