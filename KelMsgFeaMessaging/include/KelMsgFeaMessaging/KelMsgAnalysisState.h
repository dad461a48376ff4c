// KelMsgAnalysisState: the process-wide analysis progress value.
#ifndef KELMSGFEAMESSAGING_KELMSGANALYSISSTATE_H_
#define KELMSGFEAMESSAGING_KELMSGANALYSISSTATE_H_

class KelMsgAnalysisState {
 public:
  KelMsgAnalysisState() = delete;

  // Stores the value as given: no range check, no rounding.  Unlocked: set
  // and read it from one thread.
  static void SetPercentage(double percentage);
  // The last value set; 0.0 before any.
  static double GetPercentage();

 private:
  static double m_percentage;
};

#endif  // KELMSGFEAMESSAGING_KELMSGANALYSISSTATE_H_
