#include <cctype>
#include <cstdlib>
#include <cstring>

#include "common/message_catalog.h"

static const char message_not_found[] = "Message not found!!\n";

// Longest catalogue name kept from an address, and the longest number text
// that is taken as a message number (longer ones are not addresses).
static constexpr size_t max_cat_name = 256;
static constexpr size_t max_number_text = 11;

// Catalogue name of the last address split; shared by every caller.
static char cat_name_scratch[max_cat_name + 1];

void extract_cat_mid_str(int mode, const char *text, int *number, char **cat_name,
                         const char **rest) {
  cat_name_scratch[0] = '\0';
  *cat_name = cat_name_scratch;
  *number = -1;
  if (rest != nullptr) *rest = text;

  const char *first = strchr(text, ':');
  if (first == nullptr || !isdigit(static_cast<unsigned char>(first[1]))) return;
  size_t name_length = static_cast<size_t>(first - text);
  if (name_length > max_cat_name) name_length = max_cat_name;
  memcpy(cat_name_scratch, text, name_length);
  cat_name_scratch[name_length] = '\0';

  const char *digits = first + 1;
  const char *end;
  if (mode == 1) {
    end = strchr(digits, ':');
    if (end == nullptr) return;
    if (rest != nullptr) *rest = end + 1;
  } else {
    end = digits + strlen(digits);
  }
  size_t length = static_cast<size_t>(end - digits);
  if (length < 1 || length > max_number_text) return;
  char number_text[max_number_text + 1];
  memcpy(number_text, digits, length);
  number_text[length] = '\0';
  *number = static_cast<int>(strtol(number_text, nullptr, 10));
}

// The catalogue to read message texts from: the default one, or a private
// one named in the address, opened here and handed back through *opened.
static nl_catd choose_catalog(const char *cat_name, char *path, size_t path_size,
                              nl_catd *opened) {
  if (cat_name == nullptr || cat_name[0] == '\0') return catd;
  const char *dir = volget_LC_MESSAGES_dir();
  if (dir == nullptr) return reinterpret_cast<nl_catd>(-1);
  if (catname != nullptr && strcmp(cat_name, catname) == 0) return catd;
  if (strlen(dir) + strlen(cat_name) >= path_size) return reinterpret_cast<nl_catd>(-1);
  strcpy(path, dir);
  strcat(path, cat_name);
  nl_catd descriptor = catopen(path, NL_CAT_LOCALE);
  if (catd_is_open(descriptor)) *opened = descriptor;
  return descriptor;
}

void vol_getformat(const char *cat_name, int number, char *path, size_t path_size,
                   const char *def, const char **result, nl_catd *opened) {
  const char *fallback = def != nullptr ? def : message_not_found;
  *result = fallback;
  *opened = reinterpret_cast<nl_catd>(-1);
  if (number < 1 || Clocale) return;

  nl_catd descriptor = choose_catalog(cat_name, path, path_size, opened);
  if (!catd_is_open(descriptor)) {
    if (path_size > 0) path[0] = '\0';
    return;
  }
  const char *text = catgets(descriptor, SetNumber, number, def);
  if (text != nullptr && text[0] != '\0') *result = text;
}

// The copy handed out for a text of a private catalogue, which is closed
// before gettxt returns; replaced by the next such call.
static char *private_text_copy;

const char *gettxt(const char *address, const char *def) {
  const char *fallback = def != nullptr ? def : message_not_found;
  if (Clocale) return fallback;
  int number;
  char *cat_name;
  extract_cat_mid_str(0, address, &number, &cat_name, nullptr);
  if (number < 1 || cat_name[0] == '\0') return fallback;

  char path[513];
  const char *text;
  nl_catd opened;
  vol_getformat(cat_name, number, path, sizeof path, def, &text, &opened);
  if (!catd_is_open(opened)) return text;
  char *copy = strdup(text);
  catclose(opened);
  if (copy == nullptr) return fallback;
  free(private_text_copy);
  private_text_copy = copy;
  return private_text_copy;
}
