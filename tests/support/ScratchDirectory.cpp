#include "ScratchDirectory.h"

#include <stdlib.h>

#include <system_error>

#include <gtest/gtest.h>

ScratchDirectory::ScratchDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kelmsg-XXXXXX").string();
  const char* made = ::mkdtemp(pattern.data());
  EXPECT_NE(made, nullptr) << "cannot make a scratch directory";
  if (made != nullptr)
    m_path = std::filesystem::canonical(made);
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  if (!m_path.empty())
    std::filesystem::remove_all(m_path, ignored);
}
