// Replays a fuzz target's seed corpus without libFuzzer: the empty input,
// then every file of the directory given, in name order, each in a buffer
// of its exact size. A failed check or a crash ends the program.
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_util.h"

int main(int argc, char **argv) {
    FUZZ_CHECK(argc == 2);  // the corpus directory
    std::vector<std::string> names;
    if (DIR *dir = opendir(argv[1])) {
        while (dirent *entry = readdir(dir))
            if (entry->d_name[0] != '.') names.push_back(entry->d_name);
        closedir(dir);
    }
    std::sort(names.begin(), names.end());
    FUZZ_CHECK(!names.empty());
    uint8_t empty[1];
    LLVMFuzzerTestOneInput(empty, 0);
    for (const std::string &name : names) {
        std::ifstream file(std::string(argv[1]) + "/" + name, std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        const std::vector<uint8_t> input(bytes.begin(), bytes.end());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    printf("%zu inputs of %s replayed\n", names.size() + 1, argv[1]);
    return 0;
}
