// Without libFuzzer, in the tests: tries every file of a corpus, and each with thousands of small changes.
#include "fuzz/fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace {

constexpr int CHANGES = 2000;

// Bytes with up to three of them cut off, changed, doubled or left out.
std::string Mutate(std::string bytes, std::mt19937& random)
{
    for (auto rounds = random() % 4; rounds > 0 && bytes.size() > 1; --rounds) {
        const std::size_t at = random() % bytes.size();
        const auto how = random() % 4;
        if (how == 0) bytes.resize(at);
        if (how == 1) bytes[at] = static_cast<char>(random() % 3 == 0 ? 0 : random());
        if (how == 2) bytes.insert(at, 1, bytes[at]);
        if (how == 3) bytes.erase(at, 1);
    }
    return bytes;
}

void Try(const std::string& bytes)
{
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char** arguments)
{
    int files = 0;
    std::mt19937 random(4711);
    for (const auto& entry : std::filesystem::directory_iterator(count > 1 ? arguments[1] : ".")) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        for (std::size_t size = 0; size <= bytes.size(); ++size)
            Try(bytes.substr(0, size));
        for (int i = 0; i < CHANGES; ++i)
            Try(Mutate(bytes, random));
        ++files;
    }
    printf("%d files, each in all its lengths and with %d changes\n", files, CHANGES);
    return files > 0 ? 0 : 1;
}
