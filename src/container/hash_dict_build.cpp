// HashDict construction.
//
// Each key is an edge joining three distinct vertices out of m = 1.25 n + 5,
// chosen by sums of random numbers over its bytes. When the hypergraph can be
// peeled (repeatedly taking away a vertex of degree 1 with its edge until
// no edge is left), values can be set on the vertices, in the reverse of the
// peeling order, so that the XOR of a key's three values is its index or
// value. A graph that does not peel gets a new random table, drawn from the
// same generator where the last one stopped, so that a build is a pure
// function of the key set.
#include <string.h>

#include <utility>

#include "container/hash_internal.h"
#include "container/random.h"

namespace qk::hash {

namespace {

UInt gRetryLimit = 1000;

// A buffer of `count` elements of T from the heap, freed with its owner;
// zero-filled on request only, since touching fresh memory has a cost.
template <class T>
class HeapArray {
  public:
    explicit HeapArray(size_t count, bool zero = false)
        : data_((T *)Allocate(count ? count * sizeof(T) : 1, NULL)) {
        if (zero) memset((void *)data_, 0, count * sizeof(T));
    }
    ~HeapArray() { UnAllocate(data_); }
    HeapArray(const HeapArray &) = delete;
    HeapArray &operator=(const HeapArray &) = delete;
    T &operator[](size_t i) { return data_[i]; }
    T *get() { return data_; }

  private:
    T *data_;
};

enum EdgeStatus : UByte { MEMBER = 0, REMOVED = 1 };

struct StackItem {
    UInt vertex;
    UInt edge;
};

// A vertex: its degree and the XOR of its edges' numbers, which names the
// last edge when the degree is 1. Together, so that a visit touches one
// cache line.
struct Vertex {
    UInt degree;
    UInt edgeXor;
};

// The hypergraph of the keys: three vertices per edge.
struct Graph {
    UInt n, m;
    HeapArray<UInt> edges;  // 3 per edge
    HeapArray<Vertex> vertices;
    HeapArray<UByte> status;
    HeapArray<StackItem> g_state;  // the peeling stack
    UInt g_state_top = 0;
    HeapArray<UInt> order;  // edges in peeling order
    UInt peeled = 0;

    Graph(UInt n_, UInt m_)
        : n(n_),
          m(m_),
          edges((size_t)n_ * 3),
          vertices((size_t)m_ + 1),
          status(n_),
          g_state((size_t)m_ + 1),
          order(n_) {}
};

inline UByte StatusGet(Graph *graph, UInt e) {
    return graph->status[e];
}

void Push(Graph *graph, UInt vertex) {
    UInt edge = graph->vertices[vertex].edgeXor;
    // The edge is taken soon (the stack is last in, first out): its
    // vertices are on their way meanwhile.
    __builtin_prefetch(&graph->edges[(size_t)edge * 3]);
    graph->g_state[graph->g_state_top++] = {vertex, edge};
}

// Peels the graph with an explicit stack; true when every edge was taken.
bool Peel(Graph *graph) {
    Vertex *vertices = graph->vertices.get();
    memset((void *)vertices, 0, ((size_t)graph->m + 1) * sizeof(Vertex));
    memset((void *)graph->status.get(), MEMBER, graph->n);
    // Vertices are visited at random: those of a later edge are fetched
    // ahead.
    constexpr UInt kAhead = 16;
    for (UInt e = 0; e < graph->n; e++) {
        if (e + kAhead < graph->n) {
            const UInt *later = &graph->edges[(size_t)(e + kAhead) * 3];
            for (UInt k = 0; k < 3; k++) __builtin_prefetch(&vertices[later[k]]);
        }
        for (UInt k = 0; k < 3; k++) {
            Vertex &v = vertices[graph->edges[(size_t)e * 3 + k]];
            v.degree++;
            v.edgeXor ^= e;
        }
    }
    qkassert(graph->g_state_top == 0);
    graph->peeled = 0;
    for (UInt v = 1; v <= graph->m; v++) {
        if (vertices[v].degree == 1) Push(graph, v);
    }
    while (graph->g_state_top > 0) {
        StackItem item = graph->g_state[--graph->g_state_top];
        // Items deeper in the stack wait their turn: their edges and
        // vertices are fetched meanwhile.
        if (graph->g_state_top >= 8) {
            __builtin_prefetch(
                &graph->edges[(size_t)graph->g_state[graph->g_state_top - 8].edge * 3]);
            __builtin_prefetch(&vertices[graph->g_state[graph->g_state_top - 4].vertex]);
        }
        // The edge may have gone with another of its vertices.
        if (vertices[item.vertex].degree != 1) continue;
        UInt e = item.edge;
        qkassert(StatusGet(graph, e) == MEMBER);
        graph->status[e] = REMOVED;
        graph->order[graph->peeled++] = e;
        for (UInt k = 0; k < 3; k++) {
            UInt v = graph->edges[(size_t)e * 3 + k];
            vertices[v].degree--;
            vertices[v].edgeXor ^= e;
            if (vertices[v].degree == 1) Push(graph, v);
        }
    }
    return graph->peeled == graph->n;
}

struct Triple {
    UInt v[3];
    UInt edge;
};

int CompareTriples(const void *a, const void *b, void *) {
    const Triple *x = (const Triple *)a, *y = (const Triple *)b;
    for (int k = 0; k < 3; k++) {
        if (x->v[k] != y->v[k]) return x->v[k] < y->v[k] ? -1 : 1;
    }
    return 0;
}

// Two equal keys make two edges on the same three vertices, which no table
// can peel. Looks among the edges left after a failure for such pairs and
// throws when their keys are equal. False when there is none.
bool FindDuplicate(Graph *graph, void *dict, HashDictKeyFn getKey) {
    UInt left = graph->n - graph->peeled;
    HeapArray<Triple> triples(left);
    UInt count = 0;
    for (UInt e = 0; e < graph->n; e++) {
        if (graph->status[e] != MEMBER) continue;
        Triple &t = triples[count++];
        const UInt *v = &graph->edges[(size_t)e * 3];
        UInt a = v[0], b = v[1], c = v[2];
        if (a > b) std::swap(a, b);
        if (b > c) std::swap(b, c);
        if (a > b) std::swap(a, b);
        t = {{a, b, c}, e};
    }
    QSort(triples.get(), count, sizeof(Triple), CompareTriples, NULL);
    for (UInt i = 1; i < count; i++) {
        if (CompareTriples(&triples[i - 1], &triples[i], NULL) != 0) continue;
        const void *x, *y;
        UInt xSize = getKey(dict, triples[i - 1].edge, &x);
        UInt ySize = getKey(dict, triples[i].edge, &y);
        if (xSize == ySize && (xSize == 0 || memcmp(x, y, xSize) == 0)) {
            UInt first = triples[i - 1].edge, second = triples[i].edge;
            if (first > second) std::swap(first, second);
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "hdict: duplicate keys %u and %u",
                         first, second);
            return true;
        }
    }
    return false;
}

UInt BitsFor(ULong value) {
    UInt bits = 1;
    while (bits < 64 && (value >> bits) != 0) bits++;
    return bits;
}

HashDict *Fail(HashDict *hdict) {
    HashDictFree(hdict);
    return NULL;
}

}  // namespace

QK_API UInt HashDictSetRetryLimit(UInt retries) {
    UInt old = gRetryLimit;
    gRetryLimit = retries;
    return old;
}

}  // namespace qk::hash

using namespace qk::hash;

extern "C" QK_API HashDict *HashDictBuild(UInt count, void *dict, HashDictKeyFn getKey,
                                          HashDictValueFn val, UInt nbits, UInt probe,
                                          int verbose) {
    qkassert(nbits <= 32 && (val == NULL || (probe == 0 && nbits != 0)));
    qkassert(probe <= 8);
    const UInt n = count;
    ULong vertices = (ULong)n + n / 4 + 5;
    if (vertices > kDictMaxVertices) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "hdict: too many keys (%u)", n);
        return NULL;
    }
    const UInt m = (UInt)vertices;

    // The alphabet and the longest key.
    bool present[256] = {};
    UInt longest = 0;
    for (UInt i = 0; i < n; i++) {
        const void *bytes;
        UInt size = getKey(dict, i, &bytes);
        if (size > kDictMaxLength) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "hdict: key %u is longer than %u bytes",
                         i, kDictMaxLength);
            return NULL;
        }
        for (UInt k = 0; k < size; k++) present[((const UByte *)bytes)[k]] = true;
        if (size > longest) longest = size;
    }
    if (verbose) QKMessage(2, "hdict: nentries=%d", (int)n);
    UInt alphabet = 0;
    for (bool p : present) alphabet += p;

    UInt width = nbits;
    if (!val) {
        ULong largest = n > 0 ? n - 1 : 0;
        if (width == 0) width = BitsFor(largest);
        if (width < 64 && (largest >> width) != 0) {
            QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "hdict: %u bits cannot number %u keys",
                         width, n);
            return NULL;
        }
    }

    // The image, zero-filled: header and byte map now, the random table at
    // each try, values and probes at the end.
    ULong randomSize = (ULong)alphabet * 3 * longest * 4;
    ULong valuesSize = PackedSize((ULong)m + 1, width);
    ULong probesSize = (ULong)n * probe;
    ULong total = kDictHeaderSize + kDictMapSize + randomSize + valuesSize + probesSize;
    UByte *image = (UByte *)Allocate((size_t)total, NULL);
    memset(image, 0, (size_t)total);
    StoreLE(image, n, 4);
    StoreLE(image + 4, m, 4);
    StoreLE(image + 8, longest, 2);
    StoreLE(image + 10, width, 2);
    StoreLE(image + 12, alphabet, 2);
    StoreLE(image + 14, probe, 2);
    StoreLE(image + 16, kDictMapSize, 8);
    StoreLE(image + 24, randomSize, 8);
    StoreLE(image + 32, valuesSize, 8);
    StoreLE(image + 40, probesSize, 8);
    UInt letter = 0;
    for (UInt b = 0; b < 256; b++)
        StoreLE(image + kDictHeaderSize + 2 * b, present[b] ? letter++ : 0xFFFF, 2);
    HashDict *hdict = DictNewHandle(DictKind::kOwned);
    hdict->h_created = 1;
    int decoded = DictDecode(hdict, image, (size_t)total);
    qkassert(decoded);
    UByte *random = (UByte *)hdict->h_random;

    // Tries until the graph peels.
    Graph graph(n, m);
    qk::Random15 generator(0);
    for (UInt failures = 0;; failures++) {
        for (ULong i = 0; i < randomSize; i += 4) StoreLE(random + i, generator.Next30() % m, 4);
        for (UInt i = 0; i < n; i++) {
            const void *bytes;
            UInt size = getKey(dict, i, &bytes);
            bool hashed =
                DictVertices(hdict, (const UByte *)bytes, size, &graph.edges[(size_t)i * 3]);
            qkassert(hashed);
        }
        if (Peel(&graph)) {
            hdict->h_retries = failures;
            break;
        }
        if (failures == 0 && FindDuplicate(&graph, dict, getKey)) return Fail(hdict);
        if (failures >= gRetryLimit) {
            QKErrorThrow(QK_ERR_FAILURE, QK_DOMAIN_GENERAL, "hdict: cannot generate");
            return Fail(hdict);
        }
        if (verbose) QKMessage(2, "hdict: retry %d", (int)(failures + 1));
    }
    if (verbose) QKMessage(2, "hdict: size=%I64ukB", (ULong)(total + 1023) / 1024);

    // Probes first, so that the check below can use them.
    UByte *probes = (UByte *)hdict->h_probes;
    for (UInt i = 0; probe && i < n; i++) {
        const void *bytes;
        UInt size = getKey(dict, i, &bytes);
        StoreLE(probes + (size_t)i * probe, DictProbe((const UByte *)bytes, size, probe), probe);
    }

    // Values, in the reverse of the peeling order: the last free vertex of
    // each edge takes what makes the XOR of the three come out right; its
    // other free vertices take 0.
    HeapArray<UInt> value((size_t)m + 1, true);
    HeapArray<ULong> assigned((size_t)m / 64 + 1, true);  // a bit per vertex
    auto isAssigned = [&](UInt v) { return assigned[v >> 6] >> (v & 63) & 1; };
    for (UInt j = n; j-- > 0;) {
        if (j >= 8) __builtin_prefetch(&graph.edges[(size_t)graph.order[j - 8] * 3]);
        if (j >= 4) {
            const UInt *later = &graph.edges[(size_t)graph.order[j - 4] * 3];
            for (UInt k = 0; k < 3; k++) __builtin_prefetch(&value[later[k]]);
        }
        UInt e = graph.order[j];
        ULong v = e;
        if (val) {
            v = val(dict, e);
            if (width < 32 && (v >> width) != 0) {
                QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL,
                             "hdict: value %u of key %u does not fit in %u bits", (UInt)v, e,
                             width);
                return Fail(hdict);
            }
        }
        const UInt *vertex = &graph.edges[(size_t)e * 3];
        int last = -1;
        for (int k = 0; k < 3; k++) {
            if (isAssigned(vertex[k]))
                v ^= value[vertex[k]];
            else
                last = k;
        }
        qkassert(last >= 0);
        for (int k = 0; k < 3; k++) {
            if (isAssigned(vertex[k])) continue;
            value[vertex[k]] = k == last ? (UInt)v : 0;
            assigned[vertex[k] >> 6] |= (ULong)1 << (vertex[k] & 63);
        }
    }
    ULong wordCount = valuesSize / 8;
    HeapArray<ULong> words(wordCount, true);
    for (ULong i = 0; i <= m; i++) {
        ULong bit = i * width;
        ULong word = bit >> 6;
        UInt shift = (UInt)(bit & 63);
        words[word] |= (ULong)value[i] << shift;
        if (shift + width > 64) words[word + 1] |= (ULong)value[i] >> (64 - shift);
    }
    UByte *packed = (UByte *)hdict->h_values;
    for (ULong w = 0; w < wordCount; w++) StoreLE(packed + w * 8, words[w], 8);

    // Every key finds itself.
    for (UInt idx = 0; idx < n; idx++) {
        const void *bytes;
        UInt len = getKey(dict, idx, &bytes);
        if (val)
            qkassert(HashDictFind(hdict, bytes, len) == (*val)(dict, idx));
        else
            qkassert(HashDictFind(hdict, bytes, len) == idx);
    }
    return hdict;
}
