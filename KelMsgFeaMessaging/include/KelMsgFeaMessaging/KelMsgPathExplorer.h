// KelMsgPathExplorer: file paths from (base directory, job directory, file
// name) triples, and stamp files that tell two applications whether they see
// the same directory.
//
// Every operation takes its strings by value and never changes the caller's.
// A relative file name lies in the job directory and a relative job
// directory in the base directory; an absolute one stands on its own.  A
// relative base directory is read against the current directory, and an
// empty one names the current directory (KelBasUtlFilePath.h gives the rules
// of joining and normalising).
//
// Stamp protocol: application A calls StampPath with its own triple and a
// stamp name known to both; application B calls IsSharedPath with its own
// base and job directories and the same name; true means B's directory is
// A's.  Then either side calls RemoveStampFile.  The stamp is the empty file
// `stampName` + ".stamp" in the job directory.
//
// No operation reports an error.  The class keeps no state; its operations
// may be called from any thread.
#ifndef KELMSGFEAMESSAGING_KELMSGPATHEXPLORER_H_
#define KELMSGFEAMESSAGING_KELMSGPATHEXPLORER_H_

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgPathExplorer {
 public:
  KelMsgPathExplorer() = delete;

  // The absolute, normalised path name of `fileName`.
  static KelString FormPath(KelString baseDir, KelString jobDir, KelString fileName);
  // FormPath of `stampName` followed by ".stamp".
  static KelString FormStampPath(KelString baseDir, KelString jobDir, KelString stampName);
  // Creates the stamp file empty, or empties it when it exists.  Returns 0
  // even when it cannot be created: that shows only as a false IsSharedPath.
  static int StampPath(KelString baseDir, KelString jobDir, KelString stampName);
  // True when the stamp file exists.  False also when the directory does not
  // exist or cannot be read.  Creates and removes nothing.
  static bool IsSharedPath(KelString baseDir, KelString jobDir, KelString stampName);
  // Removes the stamp file when it exists.  Returns 0 whether it was missing,
  // removed, or could not be removed.
  static int RemoveStampFile(KelString baseDir, KelString jobDir, KelString stampName);
};

#endif  // KELMSGFEAMESSAGING_KELMSGPATHEXPLORER_H_
