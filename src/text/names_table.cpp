// The generated name table (tools/qkgen: qkgen unicode-names).
#include "qk/types.h"
#include "text/tables.h"

namespace qk::text {

#include "text/generated/unicode_names.inc"

}  // namespace qk::text
