// publish_host's command line.
#pragma once

#include "common/options.h"

// Throws OptionError for whatever is not exactly right.
Options parsePublishOptions(int argc, char **argv);

std::string publishHelpText();
