// SPDX-License-Identifier: MIT
// A clock: the timers of a page that is in the background are slowed down, those of a worker are not. It only ticks; the
// page itself sends the heartbeats, so that they end with a page that hangs.
'use strict';
setInterval(() => postMessage(0), 50);
