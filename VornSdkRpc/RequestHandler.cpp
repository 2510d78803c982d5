#include <VornSdkRpc/RequestHandler.h>

namespace VornSdkRpc {

// Here, so that the class's tables are in the library, once.
RequestHandler::~RequestHandler() = default;

}  // namespace VornSdkRpc
