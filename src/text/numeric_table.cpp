// The generated numeric table (tools/qkgen: qkgen unicode-numeric).
#include "qk/types.h"
#include "text/tables.h"

namespace qk::text {

#include "text/generated/unicode_numeric.inc"

}  // namespace qk::text
