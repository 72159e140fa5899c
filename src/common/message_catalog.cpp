#include "common/message_catalog.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/catalog_root.h"

int Clocale = 1;
int first_time = 1;
char *cat_dir = nullptr;
const char *cat_locale = nullptr;
char *catname = nullptr;
char *fq_catname = nullptr;
nl_catd catd = reinterpret_cast<nl_catd>(-1);
int SetNumber = 1;
unsigned libzrvm_catalog_id = 1;
unsigned libzrvm_component = 0;
unsigned libzrvm_subcomponent = 0;
char *applabel = nullptr;

void setup_i18n(const char *label) {
  setlocale(LC_ALL, "");
  volsetcat("zrvm.mesg");
  volsetlabel(label);
}

char *volsetcat(const char *name) {
  return volsetcatalog(name, static_cast<unsigned>(volcat_name_to_id(name)), 0, 0);
}

char *volsetcatalog(const char *name, unsigned catalog_id, unsigned component,
                    unsigned subcomponent) {
  free(catname);
  catname = nullptr;
  free(fq_catname);
  fq_catname = nullptr;
  // A catalogue chosen earlier would otherwise stay mapped for good.
  if (catd_is_open(catd)) catclose(catd);
  catd = reinterpret_cast<nl_catd>(-1);

  const char *dir = volget_LC_MESSAGES_dir();
  if (dir != nullptr && name != nullptr) {
    catname = strdup(name);
    size_t size = strlen(dir) + strlen(name) + 1;
    fq_catname = static_cast<char *>(calloc(1, size));
    if (catname == nullptr || fq_catname == nullptr) {
      fprintf(stderr, "ZrVM ERROR Q-5-2-8901 %s: Out of memory\n", name);
      exit(127);
    }
    snprintf(fq_catname, size, "%s%s", dir, name);
    catd = catopen(fq_catname, NL_CAT_LOCALE);
  }
  SetNumber = 1;
  libzrvm_catalog_id = catalog_id;
  libzrvm_component = component;
  libzrvm_subcomponent = subcomponent;
  return catname;
}

int volsetlabel(const char *label) {
  free(applabel);
  applabel = label != nullptr ? strdup(label) : nullptr;
  return 1;
}

int volcat_name_to_id(const char *name) {
  static const struct {
    const char *name;
    int id;
  } ids[] = {{"zrvm.mesg", 1}, {"wpnq.mesg", 4},  {"zrvc.mesg", 5}, {"tlb.mesg", 6},
             {"zrvm.dmesg", 3}, {"zrvmshm", 2}, {"zrvm.kmesg", 0}};
  for (const auto &entry : ids)
    if (strcmp(name, entry.name) == 0) return entry.id;
  // Unknown names share the id after the last real catalogue, while the
  // kernel's catalogue keeps 0.
  return 7;
}

// English texts are the built-in ones, so English locales need no catalogue.
static bool uses_builtin_texts(const char *locale) {
  return locale == nullptr || locale[0] == 'C' || locale[0] == '\0' ||
         strcmp(locale, "POSIX") == 0 || strncmp(locale, "en", 2) == 0;
}

char *volget_LC_MESSAGES_dir(void) {
  if (!first_time) {
    if (Clocale || cat_dir != nullptr) return cat_dir;
  }
  first_time = 0;
  const char *locale = setlocale(LC_MESSAGES, nullptr);
  if (uses_builtin_texts(locale)) {
    cat_dir = nullptr;
    Clocale = 1;
    cat_locale = nullptr;
    return nullptr;
  }
  size_t size = strlen(vol_messages_root) + strlen(locale) + 3;
  char *dir = static_cast<char *>(calloc(1, size));
  if (dir == nullptr) {
    fputs("ZrVM ERROR Q-5-2-780 Out of memory\n", stderr);
    exit(127);
  }
  snprintf(dir, size, "%s/%s/", vol_messages_root, locale);
  Clocale = 0;
  cat_locale = locale;
  cat_dir = dir;
  return cat_dir;
}
