// KelBasUtlFilePath: a file path read against a base directory.
//
// The object fixes its absolute path name when it is built, so the result
// does not change if the process later changes its current directory:
//   - an absolute path stands on its own and ignores the base;
//   - a relative path lies in the base directory;
//   - a relative base is read against the current directory, and an empty
//     base names the current directory itself;
//   - an empty path names the base directory itself.
// The name is normalised lexically: "." components and repeated or trailing
// separators are dropped and ".." removes the component before it (never
// going above the root).  Symbolic links are not resolved, so "link/.." is
// the directory that holds the link.  When the current directory cannot be
// read, a path that needed it stays relative.
#ifndef KELMSGFEAMESSAGING_KELBASUTLFILEPATH_H_
#define KELMSGFEAMESSAGING_KELBASUTLFILEPATH_H_

#include <KelMsgFeaMessaging/cow_String.h>

class KelBasUtlFilePath {
 public:
  // Neither string is kept; both are read as UTF-8 text ("" for no text).
  KelBasUtlFilePath(cow_String path, cow_String base);

  // The absolute, normalised path name, without a trailing separator except
  // for the root "/" itself.
  cow_String AbsolutePathName() const;
  // True when a file system entry (of any kind, a dangling symbolic link
  // included) exists at the path name.  Entries that cannot be looked at,
  // for lack of permission for example, count as absent.
  bool Exists() const;

 private:
  cow_String m_absolutePathName;
};

#endif  // KELMSGFEAMESSAGING_KELBASUTLFILEPATH_H_
