// An arbitrary (base directory, job directory, file name) triple, as the
// names of a file-transfer announcement carry them, formed into a path.
//
// Input: the three texts separated by NUL bytes (a missing one is empty).
//
// Properties: the result is absolute and normalised (no empty, "." or ".."
// component, no trailing separator but the root's); forming it again from
// itself changes nothing; an absolute file name ignores the directories; the
// stamp path is the path of the name with ".stamp" appended.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include "FuzzSupport.h"

namespace {

// The next NUL-terminated piece of [cursor, end), as the library would read it.
KelString NextText(const char*& cursor, const char* end) {
  const auto* nul = static_cast<const char*>(std::memchr(cursor, '\0', end - cursor));
  const char* stop = nul != nullptr ? nul : end;
  KelString text(cursor, static_cast<int>(stop - cursor));
  cursor = nul != nullptr ? nul + 1 : end;
  return text;
}

bool IsNormalisedAbsolute(std::string_view path) {
  if (path.empty() || path.front() != '/')
    return false;
  if (path == "/")
    return true;
  if (path.back() == '/')
    return false;
  for (std::size_t start = 1; start <= path.size();) {
    const std::size_t slash = std::min(path.find('/', start), path.size());
    const std::string_view component = path.substr(start, slash - start);
    if (component.empty() || component == "." || component == "..")
      return false;
    start = slash + 1;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* cursor = reinterpret_cast<const char*>(data);
  const char* end = cursor + size;
  const KelString base = NextText(cursor, end);
  const KelString job = NextText(cursor, end);
  const KelString file = NextText(cursor, end);

  const KelString path = KelMsgPathExplorer::FormPath(base, job, file);
  FUZZ_EXPECT(IsNormalisedAbsolute(path.GetUTF8()));
  FUZZ_EXPECT(KelMsgPathExplorer::FormPath(path, KelString(""), KelString("")) == path);
  if (file.GetUTF8()[0] == '/') {
    FUZZ_EXPECT(KelMsgPathExplorer::FormPath(KelString("/elsewhere"), KelString("job"), file) ==
                path);
  }

  KelString stampName = file;
  stampName.Append(KelString(".stamp"));
  FUZZ_EXPECT(KelMsgPathExplorer::FormStampPath(base, job, file) ==
              KelMsgPathExplorer::FormPath(base, job, stampName));
  return 0;
}
