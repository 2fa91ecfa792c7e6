// The environment file, line by line, and the switches of VORN_SEMANTICS.
#include "runtime/envfile.h"
#include "runtime/errlog.h"
#include "runtime/semantics.h"

#include <stdlib.h>
#include <string.h>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    _daemon = 1;
    std::string text((const char *)data, size < 1023 ? size : 1023);
    char line[1024];
    static char out[ENV_OUT_SIZE];
    memcpy(line, text.c_str(), strlen(text.c_str()) + 1);
    _process_env_line(line, out);
    setenv("VORN_SEMANTICS", text.c_str(), 1);
    _vorn_init_semantics();
    _vorn_read_semantics();
    return 0;
}
