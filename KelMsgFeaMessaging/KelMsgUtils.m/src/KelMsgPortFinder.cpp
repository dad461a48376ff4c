#include <KelMsgFeaMessaging/KelMsgPortFinder.h>

#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include <KelMsgFeaMessaging/DovSocketConnector.h>
#include <KelMsgFeaMessaging/DovToken.h>
#include <KelMsgFeaMessaging/DovUnicodeString.h>

namespace {

constexpr int kConnectorBacklog = 10;
constexpr int kNoPortReported = 65535;
constexpr std::uint64_t kMaxProbes = 65536;

// The token as a port number, when it reads as a decimal number to its end.
std::optional<int> ReadPort(const DovUnicodeString& token) {
  const char* text = token.ConvertToChar();
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end != '\0')
    return std::nullopt;
  return static_cast<int>(value);
}

// The range an item such as "500-510" or "500" names, when it names one.
std::optional<std::pair<int, int>> ReadRange(const DovUnicodeString& item) {
  const DovUnicodeString dash("-");
  DovToken tokens(item, 0);
  const std::optional<int> low = ReadPort(tokens.GetNextToken(dash, nullptr));
  if (!low || *low < 1)
    return std::nullopt;
  const DovUnicodeString highToken = tokens.GetNextToken(dash, nullptr);
  if (highToken.GetLengthInChar() == 0)
    return std::make_pair(*low, *low);
  const std::optional<int> high = ReadPort(highToken);
  if (!high || *high < *low)
    return std::nullopt;
  return std::make_pair(*low, *high);
}

// The port the system lets a listening socket take for `candidate`, or 0.
int ProbePort(int candidate) {
  DovSocketConnector connector(static_cast<std::uint16_t>(candidate), kConnectorBacklog, AF_INET);
  if (connector.Declare(nullptr) != 0)
    return 0;
  const int port = connector.GetPort();
  return port == kNoPortReported ? 0 : port;
}

}  // namespace

KelMsgPortFinder::KelMsgPortFinder(const DovUnicodeString& portList) {
  const DovUnicodeString comma(",");
  DovToken items(portList, 0);
  for (DovUnicodeString item = items.GetNextToken(comma, nullptr); item.GetLengthInChar() != 0;
       item = items.GetNextToken(comma, nullptr)) {
    const std::optional<std::pair<int, int>> range = ReadRange(item);
    if (!range)
      continue;
    if (m_ranges.empty())
      m_port = range->first - 1;
    m_ranges.push_back(*range);
  }
}

int KelMsgPortFinder::GetPort() {
  if (m_ranges.empty())
    return 0;
  // Compared before the step, so a range that ends at the largest int does
  // not overflow.
  if (m_port < m_ranges[m_rangeIndex].second)
    return ++m_port;
  if (++m_rangeIndex == m_ranges.size())
    m_rangeIndex = 0;
  m_port = m_ranges[m_rangeIndex].first;
  return m_port;
}

int KelMsgPortFinder::FindOpenPort() {
  const std::uint64_t probes = ProbesPerSearch();
  int candidate = GetPort();
  for (std::uint64_t probe = 1;; ++probe) {
    const int port = ProbePort(candidate);
    if (port != 0)
      return port;
    if (probe == probes)
      return 0;
    candidate = GetPort();
    if ((candidate & 0xFFFF) == 0)
      return 0;
  }
}

std::uint64_t KelMsgPortFinder::ProbesPerSearch() const {
  std::uint64_t candidates = 0;
  for (const auto& [low, high] : m_ranges) {
    candidates += static_cast<std::uint64_t>(high - low) + 1;
    if (candidates >= kMaxProbes)
      return kMaxProbes;
  }
  return std::max<std::uint64_t>(candidates, 1);
}
