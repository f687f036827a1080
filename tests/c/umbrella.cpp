// The umbrella header compiles as C++20 with warnings as errors.
#include "qk/qkcommon.h"

#include <cstring>

int main() {
    QKLibInit("cxx-check");
    UIntArray values{};
    for (UInt i = 0; i < 10; i++) ArrayAdd(values, i);
    int ok = ArrayLength(values) == 10 && ArrayNth(values, 9) == 9;
    ArrayFree(values);
    return ok && std::strcmp(QKProgramName(), "cxx-check") == 0 ? 0 : 1;
}
