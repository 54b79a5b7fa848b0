// A DLL with nothing of dbghelp's, for the StackWalker tests on Windows:
// - copies of it are placed where a dbghelp.dll is looked for, as one to be
//   rejected. It is built here rather than copied from a DLL the program
//   already uses: under wine those come from copies that wine marks as its
//   own built-ins, and for such a copy named dbghelp.dll wine loads its
//   built-in dbghelp.
// - it is linked stripped, so that dbghelp knows its one function only from
//   the export table, under its Itanium name (_ZN3oru4test10PlainProbeEi).
namespace oru::test {

__declspec(dllexport) int PlainProbe(int value) {
  return value + 1;
}

}  // namespace oru::test
