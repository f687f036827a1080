// Array, VMArray and the reusable array: growth, exact growth, copies,
// release, and which element functions run when.
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
    for (ULong i = 0; i < 5000; i++) {
        if (a.length == a.capacity) vm ? VMArrayGrow(a) : ArrayGrow(a);
        ASSERT_EQ(a.capacity, std::max(4u, std::bit_ceil((UInt)i + 1)));  // 4, then doubled
        a.data[a.length++] = i * i;
        ASSERT_TRUE(!vm || (uintptr_t)a.data % PageSize() == 0);
    }
    for (ULong i = 0; i < 5000; i++) ASSERT_EQ(a.data[i], i * i);
    for (auto [length, capacity] : {std::pair(5u, 8u), {20u, 32u}, {3u, 32u}, {0u, 32u}}) {
        const ULong *before = target.data;
        a.length = length;
        vm ? VMArrayCopy(target, a) : ArrayCopy(target, a);
        EXPECT_EQ(std::tuple(target.length, target.capacity,
                             std::vector(target.data, target.data + length)),
                  std::tuple(length, capacity, std::vector(a.data, a.data + length)));
        EXPECT_TRUE(capacity != 32 || length == 20 || target.data == before);  // kept
    }
    vm ? VMArrayFree(a) : ArrayFree(a), vm ? VMArrayFree(target) : ArrayFree(target);
    EXPECT_EQ(Header(a), Header(ULongArray{}));
    QK_ARRAY(UShort) other = {};
    EXPECT_DEATH(vm ? VMArrayCopy(other, a) : ArrayCopy(other, a), "'aSize == bSize' failed");
}

INSTANTIATE_TEST_SUITE_P(HeapAndMapped, ArrayKinds, ::testing::Bool());

// Appends, room made ahead, exact growth that only grows. Working arrays
// are emptied, or freed past the keep limit: a byte array by its length,
// any array by its capacity. Growth past the counts is fatal; the
// capacities set by hand have no memory behind them, and at the limit
// itself growth goes through (elements of size 0 need none).
TEST_F(ContainerTest, ArrayAppendsEnsuresGrowsExactlyResetsAndStopsAtItsLimits) {
    ByteArray b = {};
    ArrayAppend(b, "hello, world", 12);
    EXPECT_EQ(b.capacity, 16u);
    ArrayEnsure(b, 100);
    const UByte *data = b.data;
    EXPECT_EQ(std::tuple(std::string((char *)data, b.length), b.capacity),
              std::tuple("hello, world", 128u));
    ArrayReset(b);  // within the keep limit: emptied
    EXPECT_EQ(Header(b), std::tuple(data, 0u, 128u));
    ArraySetLength(b, 10000);
    data = b.data;
    ByteArrayReInit(&b);  // 10000 bytes are kept
    EXPECT_EQ(Header(b), std::tuple(data, 0u, 16384u));
    ArrayReset(b);  // a capacity of 16384 is past the limit
    EXPECT_EQ(Header(b), Header(ByteArray{}));
    ArraySetLength(b, 10001);
    ByteArrayReInit(&b);  // and so are 10001 bytes
    EXPECT_EQ(Header(b), Header(ByteArray{}));
    ArrayFree(b);  // a freed array is again a valid empty one
    ULongArray c = {};
    ArrayGrowExact(c, 3);
    c.data[0] = 11, c.data[2] = 33, c.length = 3;
    ArrayGrowExact(c, 2), ArrayGrowExact(c, 3);
    EXPECT_EQ(c.capacity, 3u);  // never shrinks
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
using Log = std::string;
struct Element {
    ByteArray text;  // an inner allocation kept between uses
    static void Note(Log *l, char what, UInt i) { *l += ' ' + (what + std::to_string(i)); }
    static void Init(Element *e, UInt i, Log *l) { *e = {}, Note(l, 'I', i); }
    static void ReInit(Element *e, UInt i, Log *l) { ByteArrayReInit(&e->text), Note(l, 'R', i); }
    static void UseInit(Element *, UInt i, Log *l) { Note(l, 'U', i); }
    static void Free(Element *e, UInt i, Log *l) { ArrayFree(e->text), Note(l, 'F', i); }
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
    Log log;
    // The index of an element taken, the array's capacity and the log so far.
    auto taken = [&](Element *e) {
        return std::tuple(e - a.data, a.capacity, std::exchange(log, ""));
    };
    EXPECT_EQ(NTH(a, 0, 0, 1), nullptr);
    EXPECT_EQ(taken(ADD(a)), std::tuple(0, 1u, " I0 R0 U0"));
    EXPECT_EQ(taken(ADD(a)), std::tuple(1, 2u, " I1 R1 U1"));  // the block may have moved
    ArrayAppend(a.data[0].text, "abc", 3);
    UByte *inner = a.data[0].text.data;
    a.length = 0;  // cleared by length
    EXPECT_EQ(taken(ADD(a)), std::tuple(0, 2u, " R0 U0"));
    EXPECT_EQ(std::pair(a.data[0].text.length, a.data[0].text.data), std::pair(0u, inner));
    EXPECT_EQ(std::tuple(NTH(a, 1, 0, 1), NTH(a, 0, 0, 0)), std::tuple(nullptr, a.data));
    EXPECT_EQ(taken(NTH(a, 0, 0, 1)), std::tuple(0, 2u, " U0"));
    EXPECT_EQ(taken(NTH(a, 3, 1, 1)), std::tuple(3, 4u, " I2 I3 R1 R2 R3 U3"));  // fills the gap
    a.length = 2;
    EXPECT_EQ(taken(NTH(a, 3, 1, 0)), std::tuple(3, 4u, " R2 R3"));  // in capacity: only ReInit
    RArrayFree(a, &log, Element::Free);
    EXPECT_EQ(std::pair(log, a.data), std::pair(std::string(" F0 F1 F2 F3"), (Element *)nullptr));
    QK_ARRAY(int) b = {};  // absent functions are skipped
    EXPECT_EQ(RArrayAdd(b, nullptr, nullptr, nullptr, nullptr), b.data);
    RArrayFree(b, nullptr, nullptr);
}

}  // namespace
