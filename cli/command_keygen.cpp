// fsic keygen: a new HMAC key file.
#include "cli/commands.h"
#include "cli/key_file.h"

namespace fsic::cli {

int command_keygen(const options &o) { return generate_key_file(o.key); }

} // namespace fsic::cli
