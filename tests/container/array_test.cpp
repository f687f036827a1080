// Array, VMArray and the reusable array: growth, exact growth, copies,
// release, and which element functions run when.
#include <stdint.h>

#include <string>
#include <tuple>
#include <vector>

#include "container/container_test.h"

namespace {

// The header of an array: data, length, capacity.
template <class A>
std::tuple<const void *, UInt, UInt> Header(const A &a) {
    return {a.data, a.length, a.capacity};
}

// Both kinds grow from 4 by doubling and keep their elements, copy into a
// target that they grow by doubling only when it is too small, and refuse
// elements of another size. Parameter: VMArray, whose blocks are pages.
class ArrayKinds : public ContainerTest, public ::testing::WithParamInterface<bool> {};

TEST_P(ArrayKinds, GrowCopyAndFree) {
    const bool vm = GetParam();
    ULongArray a, target = {};
    vm ? VMArrayInit(a) : ArrayInit(a);
    std::vector<UInt> capacities;
    for (ULong i = 0; i < 5000; i++) {
        if (a.length == a.capacity)
            vm ? VMArrayGrow(a) : ArrayGrow(a), capacities.push_back(a.capacity);
        a.data[a.length++] = i * i;
        ASSERT_TRUE(!vm || (uintptr_t)a.data % PageSize() == 0);
    }
    EXPECT_EQ(capacities,
              (std::vector<UInt>{4, 8, 16, 32, 64, 128, 256, 512, 1024, 2048, 4096, 8192}));
    for (ULong i = 0; i < 5000; i++) ASSERT_EQ(a.data[i], i * i);
    for (auto [length, capacity] : {std::pair(5u, 8u), {20u, 32u}, {3u, 32u}, {0u, 32u}}) {
        const ULong *before = target.data;
        a.length = length;
        vm ? VMArrayCopy(target, a) : ArrayCopy(target, a);
        EXPECT_EQ(std::tuple(target.length, target.capacity), std::tuple(length, capacity));
        EXPECT_TRUE(capacity != 32 || length == 20 ||
                    target.data == before);  // kept when large enough
        EXPECT_EQ(std::vector(target.data, target.data + length),
                  std::vector(a.data, a.data + length));
    }
    vm ? VMArrayFree(a) : ArrayFree(a);
    vm ? VMArrayFree(target) : ArrayFree(target);
    EXPECT_EQ(Header(a), Header(ULongArray{}));
    QK_ARRAY(UShort) other = {};
    EXPECT_DEATH(vm ? VMArrayCopy(other, a) : ArrayCopy(other, a), "'aSize == bSize' failed");
}

INSTANTIATE_TEST_SUITE_P(HeapAndMapped, ArrayKinds, ::testing::Bool());

// Appends, room made ahead, exact growth that only grows; growth past the
// counts is fatal. The capacities set by hand have no memory behind them; at
// the limit itself growth goes through (elements of size 0 need none).
TEST_F(ContainerTest, ArrayAppendsEnsuresGrowsExactlyAndStopsAtItsLimits) {
    ByteArray b = {};
    ArrayAppend(b, "hello, world", 12);
    EXPECT_EQ(b.capacity, 16u);
    ArrayEnsure(b, 100);
    EXPECT_EQ(std::tuple(std::string((char *)b.data, b.length), b.capacity),
              std::tuple("hello, world", 128u));
    ArrayFree(b);
    ArrayFree(b);  // a freed array is again a valid empty one
    ULongArray c = {};
    ArrayGrowExact(c, 3);
    c.data[0] = 11, c.data[2] = 33, c.length = 3;
    const ULong *data = c.data;
    ArrayGrowExact(c, 2), ArrayGrowExact(c, 3);
    EXPECT_EQ(Header(c), std::tuple(data, 3u, 3u));
    ArrayGrowExact(c, 5);
    EXPECT_EQ(std::tuple(c.capacity, c.data[0], c.data[2]), std::tuple(5u, 11ul, 33ul));
    ArrayFree(c);
    Array high = {nullptr, 0, 2147483648u}, limit = {nullptr, 0, 2147483647u}, empty = {};
    EXPECT_DEATH(ArrayGrow_(&high, 1, __FILE__, __LINE__),
                 "'a->capacity <= UINT_MAX_VALUE / 2' failed");
    EXPECT_DEATH(VMArrayGrow_(&high, 0, __FILE__, __LINE__), "'a->capacity <= .*' failed");
    ArrayGrow_(&limit, 0, __FILE__, __LINE__);
    EXPECT_EQ(Header(limit), std::tuple(nullptr, 0u, 4294967294u));
    EXPECT_EXIT(VMArrayGrow_(&empty, SIZE_MAX / 8, __FILE__, __LINE__),
                ::testing::ExitedWithCode(1), "memory map failed: ptr=.* size=");
}

// Elements of a reusable array log the functions run on them: Init, ReInit,
// UseInit and Free with the element's index.
struct Element {
    ByteArray text;  // an inner allocation kept between uses
    int inits, reInits;
    static void Init(Element *e, UInt i, std::string *l) {
        *e = {}, e->inits++, *l += " I" + std::to_string(i);
    }
    static void ReInit(Element *e, UInt i, std::string *l) {
        ByteArrayReInit(&e->text), e->reInits++, *l += " R" + std::to_string(i);
    }
    static void UseInit(Element *, UInt i, std::string *l) { *l += " U" + std::to_string(i); }
    static void Free(Element *e, UInt i, std::string *l) {
        ArrayFree(e->text), *l += " F" + std::to_string(i);
    }
};
typedef QK_ARRAY(Element) ElementArray;

#define ADD(a) RArrayAdd(a, &log, Element::Init, Element::ReInit, Element::UseInit)
#define NTH(a, index, create, use) \
    RArrayNth(a, index, create, &log, Element::Init, Element::ReInit, Element::UseInit, use)

// Initialised once, then reused: ReInit and UseInit on taking into use, Init
// only for memory not used before, which grows by exactly what is needed.
// Nth finds elements in use, or with `create` makes them.
TEST_F(ContainerTest, ReusableArrayInitialisesOnceAndReuses) {
    ElementArray a = {};
    std::string log;
    EXPECT_EQ(NTH(a, 0, 0, 1), nullptr);
    Element *e = ADD(a);
    EXPECT_EQ(e, a.data);
    e = ADD(a);
    EXPECT_EQ(e, a.data + 1);  // the block may have moved
    EXPECT_EQ(log, " I0 R0 U0 I1 R1 U1");
    EXPECT_EQ(Header(a), std::tuple(a.data, 2u, 2u));
    ArrayAppend(a.data[0].text, "abc", 3);
    UByte *inner = a.data[0].text.data;
    a.length = 0, log.clear();  // cleared by length
    e = ADD(a);
    EXPECT_EQ(std::tuple(log, e->inits, e->reInits, e->text.length, e->text.data),
              std::tuple(" R0 U0", 1, 2, 0u, inner));
    log.clear();
    EXPECT_EQ(std::tuple(NTH(a, 1, 0, 1), NTH(a, 0, 0, 0), log), std::tuple(nullptr, a.data, ""));
    EXPECT_EQ(std::pair(NTH(a, 0, 0, 1), log), std::pair(a.data, std::string(" U0")));
    log.clear();
    e = NTH(a, 3, 1, 1);  // creating initialises the gap
    EXPECT_EQ(std::tuple(e, log), std::tuple(a.data + 3, " I2 I3 R1 R2 R3 U3"));
    EXPECT_EQ(Header(a), std::tuple(a.data, 4u, 4u));
    a.length = 2, log.clear();
    NTH(a, 3, 1, 0);  // in capacity but past the length: only ReInit
    EXPECT_EQ(log, " R2 R3");
    log.clear();
    RArrayFree(a, &log, Element::Free);
    EXPECT_EQ(std::pair(log, a.data), std::pair(std::string(" F0 F1 F2 F3"), (Element *)nullptr));
    QK_ARRAY(int) b = {};  // absent functions are skipped
    *RArrayAdd(b, nullptr, nullptr, nullptr, nullptr) = 5;
    EXPECT_EQ(b.length, 1u);
    RArrayFree(b, nullptr, nullptr);
}

// Working arrays are emptied, or freed past the keep limit: a byte array
// by its length, any array by its capacity.
TEST_F(ContainerTest, ReInitAndResetFreePastTheKeepLimit) {
    for (bool big : {false, true}) {
        ByteArray bytes = {};
        UIntArray units = {};
        ArraySetLength(bytes, big ? 10001 : 10000);
        ArraySetLength(units, big ? 20000 : 100);
        auto keptBytes = std::tuple(bytes.data, 0u, bytes.capacity);
        auto keptUnits = std::tuple(units.data, 0u, units.capacity);
        ByteArrayReInit(&bytes);
        ArrayReset(units);
        EXPECT_EQ(Header(bytes), big ? Header(ByteArray{}) : keptBytes);
        EXPECT_EQ(Header(units), big ? Header(UIntArray{}) : keptUnits);
        ArrayFree(bytes), ArrayFree(units);
    }
}

}  // namespace
