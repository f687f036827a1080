// The generated case tables (tools/qkgen: qkgen unicode-case).
#include "qk/types.h"
#include "text/tables.h"

namespace qk::text {

#include "text/generated/unicode_case.inc"

}  // namespace qk::text
