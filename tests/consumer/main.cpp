// Uses the installed library through the umbrella header only.
#include <oru/oru.h>

#include <cstdio>
#include <string>

int main() {
  oru::DataStream in(
      oru::InMemoryDataSource::Create(std::string("\x00\x00\x01\x02line\n", 9), false));
  in.SetSrcEndianess(oru::Endianess(2));
  int value = 0;
  std::string line;
  if (!in.Read(value) || value != 258 || !in.Read(&line) || line != "line") {
    std::fprintf(stderr, "consumer: unexpected result %d '%s'\n", value, line.c_str());
    return 1;
  }
  std::printf("consumer: ok\n");
  return 0;
}
