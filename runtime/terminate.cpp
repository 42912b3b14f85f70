// An error that leaves an exported action and that nobody catches ends the process. The standard library's
// own handler would first print the error's demangled type to a console that an installer does not have,
// and the code for that is an eighth of the DLL: this one takes its place and just ends the process.

#include <cstdlib>

#if defined(__GLIBCXX__)
// NOLINTBEGIN(bugprone-reserved-identifier): the name that the library looks for
namespace __gnu_cxx {

void __verbose_terminate_handler();
void __verbose_terminate_handler() { std::abort(); }

}  // namespace __gnu_cxx
// NOLINTEND(bugprone-reserved-identifier)
#endif
