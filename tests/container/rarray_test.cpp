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
};

typedef QK_ARRAY(Element) ElementArray;
using Calls = std::vector<std::string>;

void ElementInit(Element *e, UInt index, Calls *log) {
    memset(e, 0, sizeof(*e));
    e->inits++;
    log->push_back("Init" + std::to_string(index));
}

void ElementReInit(Element *e, UInt index, Calls *log) {
    ByteArrayReInit(&e->text);
    e->reInits++;
    log->push_back("ReInit" + std::to_string(index));
}

void ElementUseInit(Element *, UInt index, Calls *log) {
    log->push_back("UseInit" + std::to_string(index));
}

void ElementFree(Element *e, UInt index, Calls *log) {
    ArrayFree(e->text);
    log->push_back("Free" + std::to_string(index));
}

// Add and Nth with the element's functions, which log into `log`.
#define ADD(a, log) RArrayAdd(a, &log, ElementInit, ElementReInit, ElementUseInit)
#define NTH(a, index, create, log, use) \
    RArrayNth(a, index, create, &log, ElementInit, ElementReInit, ElementUseInit, use)

TEST(RArrayTest, AddInitialisesOnceThenReuses) {
    ElementArray a = {};
    Calls log;
    Element *e0 = ADD(a, log);
    EXPECT_EQ(e0, a.data);
    Element *e1 = ADD(a, log);
    EXPECT_EQ(log, (Calls{"Init0", "ReInit0", "UseInit0", "Init1", "ReInit1", "UseInit1"}));
    EXPECT_EQ(e1, a.data + 1);  // the block may have moved
    EXPECT_EQ(a.length, 2u);
    EXPECT_EQ(a.capacity, 2u);  // grown by exactly one each time
    ArrayAppend(a.data[0].text, "abc", 3);
    UByte *inner = a.data[0].text.data;

    // Cleared by length: the elements are reused without Init.
    a.length = 0;
    log.clear();
    Element *again = ADD(a, log);
    EXPECT_EQ(log, (Calls{"ReInit0", "UseInit0"}));
    EXPECT_EQ(again->inits, 1);
    EXPECT_EQ(again->reInits, 2);
    EXPECT_EQ(again->text.length, 0u);
    EXPECT_EQ(again->text.data, inner);  // the inner allocation is kept

    log.clear();
    RArrayFree(a, &log, ElementFree);
    EXPECT_EQ(log, (Calls{"Free0", "Free1"}));  // every initialised element
    EXPECT_EQ(a.data, nullptr);

    // Absent functions are skipped.
    QK_ARRAY(int) b = {};
    *RArrayAdd(b, nullptr, nullptr, nullptr, nullptr) = 5;
    EXPECT_EQ(b.length, 1u);
    RArrayFree(b, nullptr, nullptr);
}

TEST(RArrayTest, NthFindsElementsInUseOrCreatesThem) {
    ElementArray a = {};
    Calls log;
    EXPECT_EQ(NTH(a, 0, 0, log, 1), nullptr);
    EXPECT_EQ(a.capacity, 0u);
    EXPECT_TRUE(log.empty());

    ADD(a, log);
    ADD(a, log);
    a.length = 1;
    log.clear();
    // Element 1 is initialised but not in use.
    EXPECT_EQ(NTH(a, 1, 0, log, 1), nullptr);
    EXPECT_EQ(NTH(a, 0, 0, log, 0), a.data);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(NTH(a, 0, 0, log, 1), a.data);
    EXPECT_EQ(log, (Calls{"UseInit0"}));

    // Creating initialises the gap.
    log.clear();
    Element *e3 = NTH(a, 3, 1, log, 1);
    EXPECT_EQ(e3, a.data + 3);
    EXPECT_EQ(a.capacity, 4u);
    EXPECT_EQ(a.length, 4u);
    EXPECT_EQ(log, (Calls{"Init2", "Init3", "ReInit1", "ReInit2", "ReInit3", "UseInit3"}));
    for (UInt i = 0; i < 4; i++) EXPECT_EQ(a.data[i].inits, 1) << i;

    // In capacity but past length: only ReInit.
    a.length = 2;
    log.clear();
    NTH(a, 3, 1, log, 0);
    EXPECT_EQ(log, (Calls{"ReInit2", "ReInit3"}));
    EXPECT_EQ(a.length, 4u);
    RArrayFree(a, &log, ElementFree);
}

TEST(RArrayTest, ReInitAndResetFreePastTheKeepLimit) {
    ByteArray small = {}, big = {};
    ArraySetLength(small, 10000);
    UByte *data = small.data;
    ByteArrayReInit(&small);
    EXPECT_EQ(small.length, 0u);
    EXPECT_EQ(small.data, data);  // kept for the next use
    EXPECT_GE(small.capacity, 10000u);
    ArrayFree(small);
    ArraySetLength(big, 10001);
    ByteArrayReInit(&big);
    EXPECT_EQ(big.length, 0u);
    EXPECT_EQ(big.data, nullptr);
    EXPECT_EQ(big.capacity, 0u);

    UIntArray a = {};
    ArraySetLength(a, 100);
    UInt *kept = a.data;
    ArrayReset(a);
    EXPECT_EQ(a.data, kept);
    EXPECT_EQ(a.length, 0u);
    ArraySetLength(a, 20000);
    ArrayReset(a);
    EXPECT_EQ(a.data, nullptr);
    EXPECT_EQ(a.capacity, 0u);
}

}  // namespace
