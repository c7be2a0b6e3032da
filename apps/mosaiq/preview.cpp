// mosaiq preview.
#include "cli.h"

namespace mosaiq::cli {

void runPreview(mq::HostInterface&, const PreviewOptions&) {
    throw CliError(kExitUsage, "preview is not available yet");
}

}  // namespace mosaiq::cli
