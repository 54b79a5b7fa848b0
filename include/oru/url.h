// URL helpers: taking a URL apart (RFC 3986), percent-encoding, and the two
// ways between local files and the URLs the library hands around
// ("file://" URLs, and "zipdatastream://" member URLs of open archives).
//
//   oru::URLParts parts;
//   if (oru::ParseURL("https://user@example.com:8443/a%20b/c.glb?v=2#top", parts)) {
//     parts.host;                           // "example.com"
//     parts.port;                           // 8443
//     oru::URI_Unescape(parts.path);        // "/a b/c.glb"
//   }
//   std::string url = oru::GetURLForFileSource("/data/my scene.zip");  //
//   "file:///data/my%20scene.zip" auto source = oru::GetFileSourceForURL(url); // a FileDataSource
//   oru::FindURLFileExtension(url);                                   // "zip"
//
// ParseURL follows RFC 3986's generic syntax to the letter and refuses what
// it does not allow (a character outside a component's set, a bad percent
// sequence, a malformed IPv6 literal, a port above 65535, no scheme).
// Components are given as written (percent sequences kept), except the
// scheme, which is lower-cased, and an IP literal, whose brackets are
// removed ("http://[::1]/" gives the host "::1"). An absent port is -1; an
// absent or empty component is empty.
//
// Threading: every function here may be called from any thread.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "oru/data_source.h"
#include "oru/export.h"

namespace oru {

struct URLParts {
  std::string scheme, user, password, host;
  int port = -1;
  std::string path, query, fragment;
};

/// Takes `url` apart into `out`; false (and `out` in an unspecified state)
/// when it is not a URL with a scheme.
ORU_API bool ParseURL(std::string_view url, URLParts& out);

/// `text` with every byte outside the unreserved set (A-Z a-z 0-9 - . _ ~)
/// and outside `keep` written as %XX, upper-case hex.
ORU_API std::string URI_Escape(std::string_view text, std::string_view keep = "");
/// `text` with each %XX (either case) decoded; a '%' that does not start
/// such a sequence stays as it is. URI_Unescape(URI_Escape(s)) == s for
/// every byte string.
ORU_API std::string URI_Unescape(std::string_view text);

/// The "file://" URL of a local path (made absolute against the current
/// directory first), every byte outside the unreserved set and "/"
/// escaped: "file:///home/a%20b.txt", "file:///C:/dir/a%20b.txt" and
/// "file://server/share/x" (a UNC path) on Windows.
ORU_API std::string GetURLForFileSource(std::string_view localPath);

/// A source for `url`: a FileDataSource for a "file://" URL (host empty or
/// "localhost"; on Windows a host makes a UNC path) or for a plain path; the
/// member for a "zipdatastream://" URL of a live archive; null for anything
/// else, or when the file cannot be read.
ORU_API std::shared_ptr<DataSource> GetFileSourceForURL(std::string_view url);

/// The extension of the URL's last path segment, as written, without the
/// dot; the query and fragment are ignored, and so is the authority
/// ("https://example.com" has none). Empty when the segment has no dot or
/// only a leading one.
ORU_API std::string FindURLFileExtension(std::string_view url);

}  // namespace oru
