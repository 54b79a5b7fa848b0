// Symbol construction, comparison and the text operations over arbitrary
// texts: interning must give one entry per text, ordering must agree with
// the texts' bytes, and every entry must go when its last handle does.
#include <oru/symbol.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const uint64_t before = oru::Symbol::GetInternedCount();
  {
    // Texts separated by 0xFF bytes.
    std::vector<std::string> texts(1);
    for (size_t i = 0; i < size; ++i) {
      if (data[i] == 0xFF) {
        texts.emplace_back();
      } else {
        texts.back() += static_cast<char>(data[i]);
      }
    }
    std::vector<oru::Symbol> symbols;
    for (const auto& t : texts) symbols.emplace_back(t);
    for (size_t i = 0; i < texts.size(); ++i) {
      const oru::Symbol& a = symbols[i];
      if (!(a == texts[i]) || a.size() != texts[i].size()) __builtin_trap();
      if (a.GetHash() !=
          (texts[i].empty() ? 0 : oru::Symbol::Hash(texts[i].data(), texts[i].size())))
        __builtin_trap();
      for (size_t j = 0; j < texts.size(); ++j) {
        const oru::Symbol& b = symbols[j];
        if ((a == b) != (texts[i] == texts[j])) __builtin_trap();
        const bool less =
            texts[i].empty() ? !texts[j].empty() : !texts[j].empty() && texts[i] < texts[j];
        if ((a < b) != less) __builtin_trap();
      }
      if (!texts[i].empty()) {
        const char c = texts[i][texts[i].size() / 2];
        if (a.find(c) != texts[i].find(c) || a.rfind(c) != texts[i].rfind(c)) __builtin_trap();
        if (a.substr(texts[i].size() / 2) != texts[i].substr(texts[i].size() / 2)) __builtin_trap();
      }
    }
  }
  if (oru::Symbol::GetInternedCount() != before) __builtin_trap();
  return 0;
}
