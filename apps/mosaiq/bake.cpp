// mosaiq bake.
#include "cli.h"

namespace mosaiq::cli {

void runBake(mq::HostInterface&, const BakeOptions&) {
    throw CliError(kExitUsage, "bake is not available yet");
}

}  // namespace mosaiq::cli
