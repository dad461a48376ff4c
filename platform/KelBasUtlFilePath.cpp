#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>

#include <filesystem>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// The directory a relative path is read against; empty when even the
// current directory cannot be read.
fs::path AbsoluteBase(const char* base) {
  const fs::path given(base);
  if (given.is_absolute())
    return given;
  std::error_code error;
  fs::path current = fs::current_path(error);
  if (error)
    return given;
  return current / given;
}

// POSIX leaves the meaning of a leading "//" to the system, and
// std::filesystem keeps it as written; on Linux it is the root like any other
// run of separators.
fs::path CollapseLeadingSeparators(const fs::path& path) {
  const std::string& text = path.native();
  if (text.size() < 2 || text[0] != '/' || text[1] != '/')
    return path;
  const std::size_t first = text.find_first_not_of('/');
  return first == std::string::npos ? fs::path("/") : fs::path(text.substr(first - 1));
}

fs::path Normalise(const fs::path& path) {
  fs::path normal = CollapseLeadingSeparators(path).lexically_normal();
  // "a/b/" keeps an empty last component; the name of the directory has none.
  if (normal.has_relative_path() && normal.filename().empty())
    normal = normal.parent_path();
  return normal;
}

}  // namespace

KelBasUtlFilePath::KelBasUtlFilePath(cow_String path, cow_String base) {
  const fs::path given(path.GetText());
  const fs::path anchored = given.is_absolute() ? given : AbsoluteBase(base.GetText()) / given;
  m_absolutePathName = cow_String(Normalise(anchored).c_str());
}

cow_String KelBasUtlFilePath::AbsolutePathName() const {
  return m_absolutePathName;
}

bool KelBasUtlFilePath::Exists() const {
  std::error_code error;
  return fs::exists(fs::symlink_status(m_absolutePathName.GetText(), error));
}
