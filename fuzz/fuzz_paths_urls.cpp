// Arbitrary bytes as a path and as a URL: FileSpec in both styles, ParseURL,
// the escaping pair and FindURLFileExtension must take anything without a
// crash or a hang, and keep their round trips: a full path reads back as the
// same path, and unescaping undoes escaping.
#include <oru/file_spec.h>
#include <oru/url.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  for (auto style : {oru::FileSpec::Style::Posix, oru::FileSpec::Style::Windows}) {
    oru::FileSpec parsed(text, style);
    if (oru::FileSpec(parsed.GetFullPath(), style) != parsed) __builtin_trap();
    (void)parsed.GetExtension();
    (void)parsed.GetBaseName();
    oru::FileSpec relative = parsed;
    (void)relative.MakeRelativeTo(oru::FileSpec(text.substr(0, size / 2), style));
    parsed.Join(relative).Normalize();
  }
  oru::URLParts parts;
  (void)oru::ParseURL(text, parts);
  (void)oru::FindURLFileExtension(text);
  if (oru::URI_Unescape(oru::URI_Escape(text)) != text) __builtin_trap();
  (void)oru::URI_Escape(oru::URI_Unescape(text), "/:");
  return 0;
}
