// Writes the seeds of every target that has some: make_seeds FOLDER, of which each target gets a folder of
// its name. Files are called made_*; recorded ones beside them stay as they are.
#include "seed_folder.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#define SEEDS(name) void Seeds_##name(SeedFolder &folder);
#include "fuzz_seeds.inc"
#undef SEEDS

SeedFolder::SeedFolder(std::string path) : path_(std::move(path))
{
    std::filesystem::create_directories(path_);
    for (const std::filesystem::directory_entry &entry : std::filesystem::directory_iterator(path_)) {
        if (entry.path().filename().string().starts_with("made_")) {
            std::filesystem::remove(entry.path());
        }
    }
}

void SeedFolder::write(const std::string &name, const Bytes &bytes)
{
    std::ofstream file(path_ + "/made_" + name, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

int main(int count, char **arguments)
{
    if (count != 2) {
        fprintf(stderr, "Usage: make_seeds FOLDER\n");
        return 2;
    }
    const std::string folder = arguments[1];
#define SEEDS(name)                                                                                          \
    {                                                                                                        \
        SeedFolder seeds(folder + "/" #name);                                                                \
        Seeds_##name(seeds);                                                                                 \
    }
#include "fuzz_seeds.inc"
#undef SEEDS
    return 0;
}
