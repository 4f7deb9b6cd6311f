// Reads each file of the given folders once, as the fuzzer would: replay TARGET FOLDER... A folder that is
// not there is empty; no file at all is a failure, and so is one that an input leaves in the working
// directory or among the temporary files.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#define TARGET(name)                                                                                         \
    extern "C" int name##_OneInput(const uint8_t *data, size_t size);                                        \
    extern "C" __attribute__((weak)) int name##_Initialize(int *count, char ***arguments);
#include "fuzz_targets.inc"
#undef TARGET

// Mutators are compiled here, and not called.
extern "C" __attribute__((used)) size_t LLVMFuzzerMutate(uint8_t *, size_t size, size_t)
{
    return size;
}

namespace {

struct ReplayedTarget {
    const char *name;
    int (*oneInput)(const uint8_t *, size_t);
    int (*initialize)(int *, char ***);
};

const ReplayedTarget kReplayedTargets[] = {
#define TARGET(name) {#name, name##_OneInput, name##_Initialize},
#include "fuzz_targets.inc"
#undef TARGET
};

const ReplayedTarget *FindTarget(const char *name)
{
    for (const ReplayedTarget &target : kReplayedTargets) {
        if (strcmp(target.name, name) == 0) {
            return &target;
        }
    }
    return nullptr;
}

// The bytes lie in memory of exactly their size, so that a read behind them shows.
void ReplayFile(const ReplayedTarget &target, const std::filesystem::path &path)
{
    fprintf(stderr, "%s\n", path.c_str()); // the last line of a run that breaks
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> read{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::vector<uint8_t> bytes(read.begin(), read.end());
    target.oneInput(bytes.data(), bytes.size());
}

size_t ReplayFolder(const ReplayedTarget &target, const std::filesystem::path &folder)
{
    size_t count = 0;
    if (std::filesystem::is_directory(folder)) {
        for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(folder)) {
            ReplayFile(target, entry.path());
            count++;
        }
    }
    return count;
}

// A folder of this process alone, empty, which is its working directory and that of temporary files.
std::filesystem::path GoAside()
{
    std::string name = std::filesystem::temp_directory_path() / "rtmpcast-replay-XXXXXX";
    if (mkdtemp(name.data()) == nullptr || setenv("TMPDIR", name.c_str(), 1) != 0) {
        perror("replay: no folder to work in");
        exit(2);
    }
    std::filesystem::current_path(name);
    return name;
}

// How many files have been left there; nothing is afterwards.
size_t ComeBack(const std::filesystem::path &aside)
{
    size_t left = 0;
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(aside)) {
        fprintf(stderr, "left behind: %s\n", entry.path().c_str());
        left++;
    }
    std::filesystem::current_path("/");
    std::filesystem::remove_all(aside);
    return left;
}

} // namespace

int main(int count, char **arguments)
{
    const ReplayedTarget *target = count > 1 ? FindTarget(arguments[1]) : nullptr;
    if (target == nullptr) {
        fprintf(stderr, "Usage: replay TARGET FOLDER...\n");
        return 2;
    }
    if (target->initialize != nullptr) {
        target->initialize(&count, &arguments);
    }
    std::vector<std::filesystem::path> folders;
    for (int i = 2; i < count; i++) {
        folders.push_back(std::filesystem::absolute(arguments[i]));
    }
    const std::filesystem::path aside = GoAside();
    size_t files = 0;
    for (const std::filesystem::path &folder : folders) {
        files += ReplayFolder(*target, folder);
    }
    printf("%s: %zu inputs\n", target->name, files);
    return ComeBack(aside) == 0 && files > 0 ? 0 : 1;
}
