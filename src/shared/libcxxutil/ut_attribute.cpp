#include "libcxxutil/ut_attribute.h"

const char* ut_attribute_type_word(ut_attribute_type type) {
  switch (type) {
    case ut_attribute_type::int32:
      return "int32";
    case ut_attribute_type::str_list:
      return "str_list";
    case ut_attribute_type::int32_list:
      return "int32_list";
    default:
      return "str";
  }
}
