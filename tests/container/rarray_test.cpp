// The reusable array: which of Init, ReInit and UseInit run, and when.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qk/qkcommon.h"

namespace {

struct Element {
    ByteArray text;  // an inner allocation kept between uses
    int inits;
    int reInits;
    int useInits;
};

typedef QK_ARRAY(Element) ElementArray;

struct Log {
    std::vector<std::string> calls;
};

void ElementInit(Element *e, UInt index, Log *log) {
    memset(e, 0, sizeof(*e));
    e->inits++;
    log->calls.push_back("Init" + std::to_string(index));
}

void ElementReInit(Element *e, UInt index, Log *log) {
    ByteArrayReInit(&e->text);
    e->reInits++;
    log->calls.push_back("ReInit" + std::to_string(index));
}

void ElementUseInit(Element *e, UInt index, Log *log) {
    e->useInits++;
    log->calls.push_back("UseInit" + std::to_string(index));
}

void ElementFree(Element *e, UInt index, Log *log) {
    ArrayFree(e->text);
    log->calls.push_back("Free" + std::to_string(index));
}

using Calls = std::vector<std::string>;

TEST(RArrayTest, AddInitialisesOnceThenReuses) {
    ElementArray a = {};
    Log log;
    Element *e0 = RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    EXPECT_EQ(e0, a.data);
    Element *e1 = RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    EXPECT_EQ(log.calls, (Calls{"Init0", "ReInit0", "UseInit0", "Init1", "ReInit1", "UseInit1"}));
    EXPECT_EQ(e1, a.data + 1);  // the block may have moved
    EXPECT_EQ(a.length, 2u);
    EXPECT_EQ(a.capacity, 2u);  // grown by exactly one each time
    ArrayAppend(a.data[0].text, "abc", 3);
    UByte *inner = a.data[0].text.data;

    // Cleared by length: the elements are reused without Init.
    a.length = 0;
    log.calls.clear();
    Element *again = RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    EXPECT_EQ(log.calls, (Calls{"ReInit0", "UseInit0"}));
    EXPECT_EQ(again->inits, 1);
    EXPECT_EQ(again->reInits, 2);
    EXPECT_EQ(again->text.length, 0u);
    EXPECT_EQ(again->text.data, inner);  // the inner allocation is kept

    log.calls.clear();
    RArrayFree(a, &log, ElementFree);
    EXPECT_EQ(log.calls, (Calls{"Free0", "Free1"}));  // every initialised element
    EXPECT_EQ(a.data, nullptr);
}

TEST(RArrayTest, AddWithAbsentFunctions) {
    QK_ARRAY(int) a = {};
    int *p = RArrayAdd(a, nullptr, nullptr, nullptr, nullptr);
    *p = 5;
    EXPECT_EQ(a.length, 1u);
    RArrayFree(a, nullptr, nullptr);
}

TEST(RArrayTest, NthWithoutCreateFindsOnlyElementsInUse) {
    ElementArray a = {};
    Log log;
    EXPECT_EQ(RArrayNth(a, 0, 0, &log, ElementInit, ElementReInit, ElementUseInit, 1), nullptr);
    EXPECT_EQ(a.capacity, 0u);
    EXPECT_TRUE(log.calls.empty());

    RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    a.length = 1;
    log.calls.clear();
    // Element 1 is initialised but not in use.
    EXPECT_EQ(RArrayNth(a, 1, 0, &log, ElementInit, ElementReInit, ElementUseInit, 1), nullptr);
    Element *e0 = RArrayNth(a, 0, 0, &log, ElementInit, ElementReInit, ElementUseInit, 0);
    EXPECT_EQ(e0, a.data);
    EXPECT_TRUE(log.calls.empty());
    Element *used = RArrayNth(a, 0, 0, &log, ElementInit, ElementReInit, ElementUseInit, 1);
    EXPECT_EQ(used, a.data);
    EXPECT_EQ(log.calls, (Calls{"UseInit0"}));
    RArrayFree(a, &log, ElementFree);
}

TEST(RArrayTest, NthWithCreateInitialisesTheGap) {
    ElementArray a = {};
    Log log;
    RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit);
    log.calls.clear();
    Element *e3 = RArrayNth(a, 3, 1, &log, ElementInit, ElementReInit, ElementUseInit, 1);
    ASSERT_NE(e3, nullptr);
    EXPECT_EQ(e3, a.data + 3);
    EXPECT_EQ(a.capacity, 4u);
    EXPECT_EQ(a.length, 4u);
    EXPECT_EQ(log.calls,
              (Calls{"Init1", "Init2", "Init3", "ReInit1", "ReInit2", "ReInit3", "UseInit3"}));
    for (UInt i = 0; i < 4; i++) EXPECT_EQ(a.data[i].inits, 1) << i;

    // In capacity but past length: only ReInit.
    a.length = 2;
    log.calls.clear();
    RArrayNth(a, 3, 1, &log, ElementInit, ElementReInit, ElementUseInit, 0);
    EXPECT_EQ(log.calls, (Calls{"ReInit2", "ReInit3"}));
    EXPECT_EQ(a.length, 4u);
    RArrayFree(a, &log, ElementFree);
}

TEST(RArrayTest, ByteArrayReInitFreesPastTheKeepLimit) {
    ByteArray small = {};
    ArraySetLength(small, 10000);
    UByte *data = small.data;
    ByteArrayReInit(&small);
    EXPECT_EQ(small.length, 0u);
    EXPECT_EQ(small.data, data);  // kept for the next use
    EXPECT_GE(small.capacity, 10000u);
    ArrayFree(small);

    ByteArray big = {};
    ArraySetLength(big, 10001);
    ByteArrayReInit(&big);
    EXPECT_EQ(big.length, 0u);
    EXPECT_EQ(big.data, nullptr);
    EXPECT_EQ(big.capacity, 0u);
}

TEST(RArrayTest, ArrayResetFreesPastTheKeepLimit) {
    UIntArray a = {};
    ArraySetLength(a, 100);
    UInt *data = a.data;
    ArrayReset(a);
    EXPECT_EQ(a.data, data);
    EXPECT_EQ(a.length, 0u);
    ArraySetLength(a, 20000);
    ArrayReset(a);
    EXPECT_EQ(a.data, nullptr);
    EXPECT_EQ(a.capacity, 0u);
}

}  // namespace
