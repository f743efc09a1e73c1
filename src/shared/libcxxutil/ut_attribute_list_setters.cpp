// Finding and changing the attributes of a block.
#include <cstring>
#include <utility>

#include "indgen/report.h"
#include "libcxxutil/ut_attribute_list.h"

namespace {

constexpr std::size_t kIndexedAttributes = 16;

std::string textOf(const char* value) {
  return value ? value : "";
}

}  // namespace

const ut_attribute* ut_attribute_list::find(const char* name) const {
  if (!name || !*name) return nullptr;
  if (attributes_.size() < kIndexedAttributes) {
    for (const ut_attribute& a : attributes_)
      if (a.name() == name) return &a;
    return nullptr;
  }
  if (!attributeIndex_) {
    attributeIndex_ = std::make_unique<AttributeIndex>();
    for (std::size_t i = 0; i < attributes_.size(); ++i)
      attributeIndex_->emplace(attributes_[i].name(), i);
  }
  const auto found = attributeIndex_->find(name);
  return found == attributeIndex_->end() ? nullptr : &attributes_[found->second];
}

ut_attribute* ut_attribute_list::find(const char* name) {
  return const_cast<ut_attribute*>(std::as_const(*this).find(name));
}

bool ut_attribute_list::has_room_for(const char* name) const {
  return attribute_count() < kMostAttributes || find(name);
}

bool ut_attribute_list::remove_attribute(const char* name) {
  const ut_attribute* a = find(name);
  if (!a) return false;
  attributes_.erase(attributes_.begin() + (a - attributes_.data()));
  attributeIndex_.reset();
  return true;
}

bool ut_attribute_list::add_or_replace_str(const char* name, const char* value) {
  return replace(name, textOf(value));
}

bool ut_attribute_list::add_or_replace_int32(const char* name, std::int32_t value) {
  return replace(name, value);
}

bool ut_attribute_list::append_str(const char* name, const char* value) {
  ut_attribute* a = find(name);
  std::string* text = a ? a->as<std::string>() : nullptr;
  if (!text) return replace(name, textOf(value));
  if (value) text->append(value);
  return true;
}

bool ut_attribute_list::set_str_list(const char* name, const char* value) {
  ut_value_list<std::string> list;
  list.append(textOf(value));
  return replace(name, std::move(list));
}

bool ut_attribute_list::set_int32_list(const char* name, std::int32_t value) {
  ut_value_list<std::int32_t> list;
  list.append(value);
  return replace(name, std::move(list));
}

bool ut_attribute_list::append_str_list(const char* name, const char* value) {
  return appendItem(name, textOf(value));
}

bool ut_attribute_list::append_int32_list(const char* name, std::int32_t value) {
  return appendItem(name, value);
}

bool ut_attribute_list::add_str(const char* name, const char* value) {
  return addNew(name, textOf(value));
}

bool ut_attribute_list::add_int32(const char* name, std::int32_t value) {
  return addNew(name, value);
}

void ut_attribute_list::copy_attributes(const ut_attribute_list& source, bool overwrite) {
  if (&source == this) return;
  for (const ut_attribute& a : source.attributes_) {
    const char* name = a.name().c_str();
    if (!overwrite && find(name)) continue;
    if (const char* text = attribute_str(&a))
      add_or_replace_str(name, text);
    else if (const std::int32_t* number = a.as<std::int32_t>())
      add_or_replace_int32(name, *number);
    else
      gen_error("[add_or_replace_str_list_attribute]: not implemented");
  }
}

// Always false: the attribute is a new one.
bool ut_attribute_list::addNew(const char* name, ut_attribute::Value value) {
  if (!name || !*name || attribute_count() >= kMostAttributes) {
    gen_error("\"%s\": cannot take attribute \"%s\"", full_name(true).c_str(), name ? name : "");
    return false;
  }
  attributes_.emplace_back(name, std::move(value));
  if (attributeIndex_) attributeIndex_->emplace(name, attributes_.size() - 1);
  return false;
}

bool ut_attribute_list::replace(const char* name, ut_attribute::Value value) {
  ut_attribute* a = find(name);
  if (!a) return addNew(name, std::move(value));
  a->set(std::move(value));
  return true;
}

template <class Item>
bool ut_attribute_list::appendItem(const char* name, Item item) {
  using List = ut_value_list<Item>;
  ut_attribute* a = find(name);
  List* list = a ? a->template as<List>() : nullptr;
  if (list) {
    list->append(std::move(item));
    return true;
  }
  List single;
  single.append(std::move(item));
  return replace(name, std::move(single));
}
