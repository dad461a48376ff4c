#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>

#include <filesystem>
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

fs::path Normalise(const fs::path& path) {
  fs::path normal = path.lexically_normal();
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
