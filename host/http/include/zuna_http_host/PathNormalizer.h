// Request paths as web providers see them.
#pragma once

#include <string>

namespace zuna_http::host {

// Percent-decodes the path part of a request target (the query is dropped)
// and checks that it stays inside the server's root: it must begin with "/",
// and no segment may be "." or "..", empty ("//"), or hold a backslash, a
// NUL or another control character, before or after decoding. A malformed
// escape is refused too. True and the decoded path in out, or false.
bool normalizeRequestPath(const std::string& target, std::string& out);

// The same checks for a path that the HTTP server has already decoded.
bool isSafeDecodedPath(const std::string& path);

// True when path is base or lies below it ("/a" covers "/a" and "/a/b", not
// "/ab"). An empty base or "/" covers every path.
bool isBelow(const std::string& path, const std::string& base);

}  // namespace zuna_http::host
