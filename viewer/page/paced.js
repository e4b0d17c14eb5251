// SPDX-License-Identifier: MIT
// Repeats work that gets slower as the database grows at a bounded share of the time.

// Returns a function that asks for a run of `work` (async). After a run there is a pause of at least `pause`
// milliseconds and of `share` times the duration of the run. soon(true) starts at once, also beside a run that has not
// ended: `work` must ask its questions by name, so that the older run gives up.
export function paced(work, pause, share = 10) {
  let latest = 0; // the number of the latest run
  let isRunning = false;
  let isWanted = false;
  let earliest = 0;
  let timer = 0;

  async function run() {
    clearTimeout(timer);
    timer = 0;
    const number = ++latest;
    isRunning = true;
    isWanted = false;
    const start = performance.now();
    try {
      await work();
    } finally {
      if (number === latest) {
        const end = performance.now();
        earliest = end + Math.max(pause, share * (end - start));
        isRunning = false;
        if (isWanted) wait();
      }
    }
  }
  function wait() {
    if (!timer) timer = setTimeout(run, Math.max(0, earliest - performance.now()));
  }
  return function soon(isUrgent = false) {
    if (isUrgent) {
      run();
      return;
    }
    isWanted = true;
    if (!isRunning) wait();
  };
}
