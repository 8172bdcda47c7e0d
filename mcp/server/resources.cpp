#include "mcp/server/mirel_mcp_server.h"

namespace mirel {

void MirelMCPServer::handleResourcesList(const JSONRPC::Request& request) {
    transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::methodNotFound,
                                   "Unsupported method: " + request.method));
}

void MirelMCPServer::handleResourceRead(const JSONRPC::Request& request) {
    transport_.send(JSONRPC::error(request.id, JSONRPC::ErrorCode::methodNotFound,
                                   "Unsupported method: " + request.method));
}

}  // namespace mirel
