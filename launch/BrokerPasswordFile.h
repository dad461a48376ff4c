// BrokerPasswordFile: the users and password hashes of mosquitto's
// password_file, kept in memory and saved whole.  Hashes are mosquitto's
// PBKDF2-SHA512 ("$7$"); passwords themselves are never stored.
//
// The object owns its copy of the file.  One thread at a time.  Files that
// cannot be read or written throw std::runtime_error.
#ifndef KELMSG_LAUNCH_BROKERPASSWORDFILE_H_
#define KELMSG_LAUNCH_BROKERPASSWORDFILE_H_

#include <map>
#include <string>
#include <vector>

class BrokerPasswordFile {
 public:
  // The users of `path`; none when it does not exist yet.
  explicit BrokerPasswordFile(std::string path);

  // Adds `user`, or gives it a new password.  User names are non-empty and
  // hold no ':' and no line break (std::invalid_argument otherwise).
  void Set(const std::string& user, const std::string& password);
  // Returns whether `user` was there.
  bool Remove(const std::string& user);
  std::vector<std::string> Users() const;
  // Writes the file, readable by its owner only.
  void Save() const;

  // A password of 24 random letters and digits (about 143 bits).
  static std::string NewPassword();
  // Writes `text` to `path`, readable by its owner only from the start.
  static void WriteSecret(const std::string& path, const std::string& text);

 private:
  std::string m_path;
  std::map<std::string, std::string> m_hashes;  // user -> "$7$..."
};

#endif  // KELMSG_LAUNCH_BROKERPASSWORDFILE_H_
