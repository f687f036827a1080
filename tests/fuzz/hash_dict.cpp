// HashDict images. The input is a file form (an 8-byte length, then the
// image), and after it lookup keys separated by line feeds. It is read from
// a file through a channel, mapped from the file, and read in place from
// memory: the three must agree on whether it is a dictionary and on its
// answers, and a dictionary written again must read back with the same.
#include <string.h>

#include <algorithm>
#include <vector>

#include "fuzz_util.h"

namespace {

// The size, the longest key and the lookups; nothing for no dictionary.
std::vector<Long> Answers(const HashDict *hdict, const std::vector<std::string> &keys) {
    if (hdict == nullptr) return {};
    std::vector<Long> answers = {HashDictSize(hdict), HashDictMaxLength(hdict)};
    for (const std::string &key : keys)
        answers.push_back(HashDictFind(hdict, key.data(), (UInt)key.size()));
    return answers;
}

ULong LengthField(const uint8_t *data, size_t size) {
    ULong length = 0;
    for (size_t i = 0; i < HASHDICT_LENGTH_SIZE && i < size; i++) length |= (ULong)data[i] << 8 * i;
    return length;
}

// The empty key, then up to 16 keys from the bytes behind the file form.
std::vector<std::string> Keys(const uint8_t *data, size_t size, ULong length) {
    std::vector<std::string> keys = {""};
    if (size < HASHDICT_LENGTH_SIZE || length > size - HASHDICT_LENGTH_SIZE) return keys;
    std::string rest((const char *)data + HASHDICT_LENGTH_SIZE + length,
                     size - HASHDICT_LENGTH_SIZE - length);
    for (size_t at = 0; at < rest.size() && keys.size() <= 16;) {
        size_t end = std::min(rest.find('\n', at), rest.size());
        keys.push_back(rest.substr(at, end - at));
        at = end + 1;
    }
    return keys;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string &dir = qkfuzz::FreshDir();
    qkfuzz::WriteFile(dir + "/dict.hd", data, size);
    const ULong length = LengthField(data, size);
    const std::vector<std::string> keys = Keys(data, size, length);

    Channel *channel = ChannelNew(-1, -1);
    FUZZ_CHECK(ChannelOpenFile(channel, (dir + "/dict.hd").c_str(), "r"));
    HashDict *fromFile = HashDictFileRead(channel);
    ChannelClose(channel);
    HashDict *mapped = HashDictOpen(dir.c_str(), "dict", "hd");
    // In place, at an offset that rounds up to the copy's start.
    std::vector<ULong> memory(size / 8 + 2);
    memcpy(memory.data() + 1, data, size);
    size_t offset = 3;
    HashDict *inPlace = HashDictMMRead(memory.data(), &offset, size + 8);

    const std::vector<Long> answers = Answers(fromFile, keys);
    FUZZ_CHECK(Answers(mapped, keys) == answers && Answers(inPlace, keys) == answers);
    FUZZ_CHECK(offset == (inPlace ? 16 + length : 3));
    if (fromFile != nullptr) {
        ByteArray image = {};
        HashDictMMWrite(fromFile, &image);
        size_t at = 0;
        HashDict *again = HashDictMMRead(image.data, &at, image.length);
        FUZZ_CHECK(again != nullptr && at == image.length && Answers(again, keys) == answers);
        HashDictMMFree(again);
        ArrayFree(image);
    }
    HashDictMemClose(fromFile);
    HashDictMemClose(mapped);
    HashDictMemClose(inPlace);
    return 0;
}
