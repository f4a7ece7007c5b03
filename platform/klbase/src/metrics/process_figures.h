// Figures that are known to the process, and asked for when somebody wants to see them.
#ifndef KLBASE_METRICS_PROCESS_FIGURES_H_
#define KLBASE_METRICS_PROCESS_FIGURES_H_

namespace klbase_internal {

// Its version and start, and the records that its log has lost. Any thread.
void UpdateProcessFigures();

}  // namespace klbase_internal

#endif  // KLBASE_METRICS_PROCESS_FIGURES_H_
