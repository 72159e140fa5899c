#pragma once

// The daemon's descriptor clean-up, run once standard error points at the
// log: closes 0 and 1, then every descriptor from 3 up to and including the
// soft open-files limit capped at 256.  Errors are ignored.
void vol_setup_fds(void);
