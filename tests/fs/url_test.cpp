// URL helpers: ParseURL by table and against uriparser and Python's
// urllib.parse on generated URLs; escaping round trips; file URLs that lead
// back to their files.
#include "oru/url.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <random>
#include <sstream>
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
  const struct {
    const char *url, *parts;  // parts null: not a URL
  } cases[] = {
      {"HTTPS://u:p@Example.com:8443/a%20b/c.glb?v=2&x#top",
       "https|u|p|Example.com|8443|/a%20b/c.glb|v=2&x|top"},
      {"file:///C:/dir/x.txt", "file||||-1|/C:/dir/x.txt||"},
      {"mailto:a@b.c", "mailto||||-1|a@b.c||"},
      {"http://[::1]:80/", "http|||::1|80|/||"},
      {"http://[v7.a:b]/", "http|||v7.a:b|-1|/||"},
      {"h://[1:2:3:4:5:6:1.2.3.4]", "h|||1:2:3:4:5:6:1.2.3.4|-1|||"},
      {"x://h:/p?#", "x|||h|-1|/p||"},
      {"urn:isbn:0451?q/?#f/?:", "urn||||-1|isbn:0451|q/?|f/?:"},
      {"x://h:65535", "x|||h|65535|||"},
      {"x://h:65536", nullptr},
      {"x://h:8a", nullptr},
      {"x://[::1", nullptr},
      {"x://[1:2:3:4:5:6:7:8:9]", nullptr},
      {"x://[::1::2]", nullptr},
      {"x://[1.2.3.256::]", nullptr},
      {"x://a b/", nullptr},
      {"x:/%zz", nullptr},
      {"x:/%2", nullptr},
      {"//host/path", nullptr},
      {"1x:y", nullptr},
      {"no-colon", nullptr},
      {":x", nullptr},
      {"x:\xC3\xA9", nullptr},
  };
  for (const auto& c : cases) {
    URLParts parts;
    const bool ok = ParseURL(c.url, parts);
    EXPECT_EQ(ok, c.parts != nullptr) << c.url;
    if (ok && c.parts) EXPECT_EQ(Show(parts), c.parts) << c.url;
  }
}

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

#if ORU_HAVE_URIPARSER
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
      std::string scheme = Range(uri.scheme);
      for (char& c : scheme) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      EXPECT_EQ(parts.scheme, scheme);
      const std::string info = Range(uri.userInfo);
      const size_t colon = info.find(':');
      EXPECT_EQ(parts.user, info.substr(0, colon));
      EXPECT_EQ(parts.password, colon == std::string::npos ? "" : info.substr(colon + 1));
      EXPECT_EQ(parts.host, Range(uri.hostText));
      EXPECT_EQ(parts.port, uri.portText.first && uri.portText.first != uri.portText.afterLast
                                ? std::stoi(Range(uri.portText))
                                : -1);
      std::string path;
      for (auto* s = uri.pathHead; s != nullptr; s = s->next)
        path += (path.empty() && s == uri.pathHead ? "" : "/") + Range(s->text);
      EXPECT_EQ(parts.path.empty() || parts.path[0] != '/' ? parts.path : parts.path.substr(1),
                path);
      EXPECT_EQ(parts.query, Range(uri.query));
      EXPECT_EQ(parts.fragment, Range(uri.fragment));
    }
    uriFreeUriMembersA(&uri);
  }
  EXPECT_GT(valid, 150);
}
#endif

TEST(ParseURL, AgreesWithPythonWhereItAccepts) {
  if (!test::HaveTool("python3")) GTEST_SKIP() << "needs python3";
  std::vector<std::string> accepted;
  std::string input, output, line;
  for (const std::string& url : GeneratedUrls()) {
    URLParts parts;
    if (ParseURL(url, parts)) accepted.push_back(url), input += url + "\n";
  }
  test::TempDir dir;
  test::WriteFile(dir.File("urls"), input);
  ASSERT_EQ(test::RunPython(R"(import sys, urllib.parse
for line in open(sys.argv[1], encoding='utf-8', errors='surrogateescape').read().split('\n')[:-1]:
    try:
        u = urllib.parse.urlsplit(line)
        print('|'.join([u.scheme, u.username or '', u.password or '', u.hostname or '',
                        str(u.port if u.port is not None else -1), u.path, u.query, u.fragment]))
    except ValueError:
        print('ERR')
)",
                            {dir.File("urls")}, &output),
            0);
  std::istringstream lines(output);
  int compared = 0;
  for (const std::string& url : accepted) {
    ASSERT_TRUE(std::getline(lines, line));
    URLParts parts;
    ParseURL(url, parts);
    for (char& c : parts.host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (line == "ERR") continue;
    EXPECT_EQ(Show(parts), line) << url;
    ++compared;
  }
  EXPECT_GT(compared, 150);
}

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
  const std::pair<const char*, const char*> cases[] = {
      {"http://x/a/b.tar.GZ?y=1.2#f.g", "GZ"},
      {"http://host.com", ""},
      {"http://h/a.b/c", ""},
      {"file:///p/.bashrc", ""},
      {"C:\\dir\\x.TXT", "TXT"},
      {"rel/x.y?", "y"},
      {"x.", ""},
  };
  for (const auto& [url, ext] : cases) EXPECT_EQ(FindURLFileExtension(url), ext) << url;
}

}  // namespace
}  // namespace oru
