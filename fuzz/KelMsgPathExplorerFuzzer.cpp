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
#include <filesystem>
#include <string>
#include <string_view>

#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include "FuzzSupport.h"

namespace {

// Lexical normalisation leaves such a path as it is, but for a trailing
// separator, which it keeps.
bool IsNormalisedAbsolute(const std::string& path) {
  return path == "/" || (path.size() > 1 && path.front() == '/' && path.back() != '/' &&
                         std::filesystem::path(path).lexically_normal().native() == path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  KelString texts[3];
  for (KelString& text : texts) {
    const std::string_view piece = rest.substr(0, rest.find('\0'));
    text = KelString(piece.data(), static_cast<int>(piece.size()));
    rest.remove_prefix(std::min(rest.size(), piece.size() + 1));
  }
  const auto& [base, job, file] = texts;

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
