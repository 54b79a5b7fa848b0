// URL helpers: ParseURL by table and against uriparser on generated URLs; escaping round trips;
// file URLs that lead back to their files.
#include "oru/url.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "oru/zip_data_stream.h"
#include "oru/zip_writer.h"
#include "support/test_util.h"

#if ORU_HAVE_URIPARSER
#include <uriparser/Uri.h>
#endif

namespace oru {
namespace {

std::string Show(const URLParts& p) {
  return p.scheme + "|" + p.user + "|" + p.password + "|" + p.host + "|" + std::to_string(p.port) +
         "|" + p.path + "|" + p.query + "|" + p.fragment;
}

TEST(ParseURL, Table) {
  const std::pair<const char*, const char*> cases[] = {
      {"HTTPS://u:p@Example.com:8443/a%20b/c.glb?v=2&x#top",
       "https|u|p|Example.com|8443|/a%20b/c.glb|v=2&x|top"},
      {"file:///C:/dir/x.txt", "file||||-1|/C:/dir/x.txt||"},
      {"mailto:a@b.c", "mailto||||-1|a@b.c||"},
      {"http://[::1]:80/", "http|||::1|80|/||"},
      {"http://[v7.a:b]/", "http|||v7.a:b|-1|/||"},
      {"h://[1:2:3:4:5:6:255.2.3.4]", "h|||1:2:3:4:5:6:255.2.3.4|-1|||"},
      {"x://h:/p?#", "x|||h|-1|/p||"},
      {"urn:isbn:0451?q/?#f/?:", "urn||||-1|isbn:0451|q/?|f/?:"},
      {"x://h:65535", "x|||h|65535|||"},
  };
  for (const auto& [url, expected] : cases) {
    URLParts parts;
    EXPECT_TRUE(ParseURL(url, parts)) << url;
    EXPECT_EQ(Show(parts), expected) << url;
  }
  for (const char* bad : {"x://h:65536", "x://h:8a", "x://[::1", "x://[1:2:3:4:5:6:7:8:9]",
                          "x://[::1::2]", "x://[1.2.3.256::]", "x://a b/", "x:/%zz", "x:/%2",
                          "//host/path", "1x:y", "no-colon", ":x", "x:\xC3\xA9"}) {
    URLParts parts;
    EXPECT_FALSE(ParseURL(bad, parts)) << bad;
  }
}

#if ORU_HAVE_URIPARSER
// URLs from pieces, valid and not, for the differential checks. Ports stay
// below 65536: RFC 3986 allows any digits, ParseURL refuses what no port is.
std::vector<std::string> GeneratedUrls() {
  const char* schemes[] = {"http", "HTTPS", "file", "a+b.c-d", "1x", ""};
  const char* authorities[] = {"",           "//",       "//host", "//u:p@h:8080",
                               "//[::1]:80", "//[v1.x]", "//[::1", "//ho st",
                               "//h:x",      "//%41b",   "//u@@h", "//[1:2::3:4]"};
  const char* paths[] = {"",     "/",         "/a/b.c", "a:b", "/%2",
                         "/%zz", "/\xC3\xBC", "/a b",   "//x", "/@!$"};
  const char* queries[] = {"", "?", "?a=b&c", "?%", "?x/y?z"};
  const char* fragments[] = {"", "#", "#f/?", "#a#b"};
  std::mt19937 rng(3);
  std::vector<std::string> urls;
  for (int i = 0; i < 1500; ++i) {
    const std::string scheme = schemes[rng() % std::size(schemes)];
    urls.push_back(scheme + (rng() % 8 ? ":" : "") + authorities[rng() % std::size(authorities)] +
                   paths[rng() % std::size(paths)] + queries[rng() % std::size(queries)] +
                   fragments[rng() % std::size(fragments)]);
  }
  return urls;
}

std::string Range(const UriTextRangeA& r) {
  return r.first ? std::string(r.first, r.afterLast) : std::string();
}

TEST(ParseURL, AgreesWithUriparser) {
  int valid = 0;
  for (const std::string& url : GeneratedUrls()) {
    SCOPED_TRACE(url);
    UriUriA uri;
    const char* error = nullptr;
    const bool theirs =
        uriParseSingleUriA(&uri, url.c_str(), &error) == URI_SUCCESS && uri.scheme.first != nullptr;
    URLParts parts;
    ASSERT_EQ(ParseURL(url, parts), theirs);
    valid += theirs;
    if (theirs) {
      // uriparser's parts in the order and form Show gives ParseURL's.
      std::string scheme = Range(uri.scheme), info = Range(uri.userInfo), port, path;
      for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      const size_t colon = info.find(':');
      port = Range(uri.portText).empty() ? "-1" : std::to_string(std::stoi(Range(uri.portText)));
      for (auto* s = uri.pathHead; s != nullptr; s = s->next)
        path += (s == uri.pathHead ? "" : "/") + Range(s->text);
      if (!parts.path.empty() && parts.path[0] == '/') parts.path.erase(0, 1);
      EXPECT_EQ(Show(parts), scheme + "|" + info.substr(0, colon) + "|" +
                                 (colon == std::string::npos ? "" : info.substr(colon + 1)) + "|" +
                                 Range(uri.hostText) + "|" + port + "|" + path + "|" +
                                 Range(uri.query) + "|" + Range(uri.fragment));
    }
    uriFreeUriMembersA(&uri);
  }
  EXPECT_GT(valid, 150);
}
#endif

TEST(URIEscape, RoundTripsEveryByteAndLeavesBadSequences) {
  std::mt19937 rng(11);
  for (int i = 0; i < 200; ++i) {
    const std::string bytes = test::RandomBytes(rng() % 40, static_cast<unsigned>(i));
    const std::string escaped = URI_Escape(bytes);
    ASSERT_EQ(URI_Unescape(escaped), bytes);
    for (char c : escaped)
      ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || std::strchr("-._~%", c));
  }
  EXPECT_EQ(URI_Escape("a b/c~\xFF", "/"), "a%20b/c~%FF");
  EXPECT_EQ(URI_Unescape("%41%4a%4G%%2 %"), "AJ%4G%%2 %");
}

TEST(FileURLs, LeadBackToTheirFilesAndMembers) {
  test::TempDir dir;
#ifdef _WIN32
  const char* odd = "a b%20c#d.txt";  // no '?' in Windows names
#else
  const char* odd = "a b%20c#d?e.txt";
#endif
  for (const char* name : {"plain.bin", odd, "\xC3\xA9t\xC3\xA9.glb"}) {
    const std::string path = dir.File(name);
    test::WriteFile(path, name);
    const std::string url = GetURLForFileSource(path);
    EXPECT_EQ(url.rfind("file:///", 0), 0u) << url;
    EXPECT_EQ(url.find_first_of(" #?"), std::string::npos) << url;
    EXPECT_EQ(test::Contents(GetFileSourceForURL(url)), name) << url;
    EXPECT_EQ(test::Contents(GetFileSourceForURL(path)), name);  // a plain path
  }
  ZipWriter writer;
  writer.AddFile(InMemoryDataSource::Create(std::string("member"), false), "m.txt");
  auto archive = ZipDataStream::Create(writer.GetDSForBuffer());
  EXPECT_EQ(test::Contents(GetFileSourceForURL(archive->GetUniqueId() + "/m.txt")), "member");
  EXPECT_EQ(GetFileSourceForURL("https://example.com/x.zip"), nullptr);
  EXPECT_EQ(GetFileSourceForURL("file://elsewhere/x"), nullptr);
}

TEST(FindURLFileExtension, Table) {
  for (auto [url, ext] : {std::pair{"http://x/a/b.tar.GZ?y=1.2#f.g", "GZ"},
                          {"C:\\dir\\x.TXT", "TXT"},
                          {"rel/x.y?", "y"}})
    EXPECT_EQ(FindURLFileExtension(url), ext) << url;
  for (const char* none : {"http://host.com", "http://h/a.b/c", "file:///p/.bashrc", "x."})
    EXPECT_EQ(FindURLFileExtension(none), "") << none;
}

}  // namespace
}  // namespace oru
