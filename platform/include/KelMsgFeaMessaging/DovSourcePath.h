// DOV_SOURCE_PATH: the path that a failed check's report names, that of the
// source file being compiled, relative to the project and without its
// extension: "platform/DovToken",
// "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgBBCallbackManager".
//
// It is computed while compiling, from __FILE__, from which the build has
// removed the project's location (-fmacro-prefix-map, set for every target of
// the project).  A file whose __FILE__ still names that location, or any
// other place outside the project, does not compile.  The text is a constant
// in static storage: it needs no owner and may be read from any thread.
#ifndef KELMSGFEAMESSAGING_DOVSOURCEPATH_H_
#define KELMSGFEAMESSAGING_DOVSOURCEPATH_H_

#include <cstddef>

// Never defined: calling it while compiling stops the build.
void DovSourcePathIsNotRelativeToTheProject();

// The source path of the file named `file`, kept in an array of the name's
// size.  Converts implicitly, so that __FILE__ itself can be a template
// argument.
template <std::size_t N>
struct DovSourcePath {
  consteval DovSourcePath(const char (&file)[N]) {
    if (file[0] == '/' || file[0] == '.')
      DovSourcePathIsNotRelativeToTheProject();
    // The extension starts at the last '.' of the last component.
    std::size_t end = N - 1;
    for (std::size_t at = 0; at + 1 < N; ++at) {
      if (file[at] == '/')
        end = N - 1;
      else if (file[at] == '.')
        end = at;
    }
    for (std::size_t at = 0; at < end; ++at)
      text[at] = file[at];
  }

  char text[N] = {};
};

// One text per source path, shared by every check of the file.
template <DovSourcePath kPath>
inline constexpr const char* kDovSourcePath = kPath.text;

#define DOV_SOURCE_PATH (kDovSourcePath<__FILE__>)

#endif  // KELMSGFEAMESSAGING_DOVSOURCEPATH_H_
