#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include <cstdio>

#include <KelMsgFeaMessaging/KelBasFileOps.h>
#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>
#include <KelMsgFeaMessaging/cow_String.h>

namespace {

bool EntryExists(const KelString& path) {
  return KelBasUtlFilePath(cow_String(path.GetUTF8()), cow_String("")).Exists();
}

}  // namespace

KelString KelMsgPathExplorer::FormPath(KelString baseDir, KelString jobDir, KelString fileName) {
  const cow_String absoluteJobDir =
      KelBasUtlFilePath(cow_String(jobDir.GetUTF8()), cow_String(baseDir.GetUTF8()))
          .AbsolutePathName();
  const cow_String absoluteFile =
      KelBasUtlFilePath(cow_String(fileName.GetUTF8()), absoluteJobDir).AbsolutePathName();
  return KelString(absoluteFile.GetText());
}

KelString KelMsgPathExplorer::FormStampPath(KelString baseDir, KelString jobDir,
                                            KelString stampName) {
  stampName.Append(KelString(".stamp"));
  return FormPath(baseDir, jobDir, stampName);
}

int KelMsgPathExplorer::StampPath(KelString baseDir, KelString jobDir, KelString stampName) {
  const KelString path = FormStampPath(baseDir, jobDir, stampName);
  FILE* stamp = KelBasFileOps::Fopen(path, "w");
  if (stamp != nullptr)
    std::fclose(stamp);
  return 0;
}

bool KelMsgPathExplorer::IsSharedPath(KelString baseDir, KelString jobDir, KelString stampName) {
  return EntryExists(FormStampPath(baseDir, jobDir, stampName));
}

int KelMsgPathExplorer::RemoveStampFile(KelString baseDir, KelString jobDir, KelString stampName) {
  const KelString path = FormStampPath(baseDir, jobDir, stampName);
  if (EntryExists(path))
    std::remove(path.GetUTF8());
  return 0;
}
