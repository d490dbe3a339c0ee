// The platform's parser of "lan://" target strings.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lan_spec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    std::string_view spec(reinterpret_cast<const char *>(data), size);
    std::string error;
    if (auto config = libipmi::lan::parseTarget(spec, error)) {
        (void)config->endpoint();
        (void)config->describe();
    }
    (void)libipmi::lan::redact(spec);
    return 0;
}
