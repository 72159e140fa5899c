#pragma once
// Puts the formatter's process-wide state back to how the program starts,
// so that tests sharing one process do not see each other's locale,
// catalogue or label.  Use i18n_state_guard in a fixture, or call
// reset_i18n_state directly.

#include <clocale>
#include <cstdlib>

#include "common/catalog_root.h"
#include "common/message_catalog.h"

inline void reset_i18n_state() {
  if (catd_is_open(catd)) catclose(catd);
  catd = reinterpret_cast<nl_catd>(-1);
  free(cat_dir);
  cat_dir = nullptr;
  free(catname);
  catname = nullptr;
  free(fq_catname);
  fq_catname = nullptr;
  free(applabel);
  applabel = nullptr;
  cat_locale = nullptr;
  Clocale = 1;
  first_time = 1;
  SetNumber = 1;
  libzrvm_catalog_id = 1;
  libzrvm_component = 0;
  libzrvm_subcomponent = 0;
  vol_messages_root = ZRIOSTAT_MESSAGES_ROOT;
  setlocale(LC_ALL, "C");
}

struct i18n_state_guard {
  i18n_state_guard() { reset_i18n_state(); }
  ~i18n_state_guard() { reset_i18n_state(); }
  i18n_state_guard(const i18n_state_guard &) = delete;
  i18n_state_guard &operator=(const i18n_state_guard &) = delete;
};
