// Where the seeds of one target go. tests/fuzz/seeds/NAME_seeds.cpp defines `void Seeds_NAME(SeedFolder &)`.
#pragma once

#include "support/bytes.h"

#include <string>

class SeedFolder {
  public:
    explicit SeedFolder(std::string path); // is made, and emptied of what an earlier run has written
    void write(const std::string &name, const Bytes &bytes);

  private:
    std::string path_;
};
