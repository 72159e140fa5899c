#pragma once
// Locale and XSI message catalogue set-up, and message lookup.
// Process-wide state, prepared once by setup_i18n before any message.

#include <cstddef>
#include <nl_types.h>

// Formatter state (initial values in brackets).
extern int Clocale;                      // [1] set: built-in texts only
extern int first_time;                   // [1] locale directory not computed yet
extern char *cat_dir;                    // [null] "<root>/<locale>/", owned
extern const char *cat_locale;           // [null] the C library's locale string
extern char *catname;                    // [null] default catalogue name, owned
extern char *fq_catname;                 // [null] directory + catalogue name, owned
extern nl_catd catd;                     // [-1] default catalogue; -1 or 0: none
extern int SetNumber;                    // [1] the set all messages lie in
extern unsigned libzrvm_catalog_id;      // [1]
extern unsigned libzrvm_component;       // [0]
extern unsigned libzrvm_subcomponent;    // [0]
extern char *applabel;                   // [null] program label, owned

// A descriptor of -1 or 0 stands for "no catalogue".
inline bool catd_is_open(nl_catd descriptor) {
  return descriptor != reinterpret_cast<nl_catd>(-1) && descriptor != nullptr;
}

// Sets the locale from the environment, selects "zrvm.mesg" and the label.
void setup_i18n(const char *label);
// Selects the default catalogue by name (component and subcomponent 0).
char *volsetcat(const char *name);
// Opens the default catalogue of the current locale (closing the one chosen
// before) and stores the identifier parts; returns catname, null when the
// locale needs no catalogue.  Exits with status 127 when memory runs out.
char *volsetcatalog(const char *name, unsigned catalog_id, unsigned component,
                    unsigned subcomponent);
// Keeps a fresh copy of the label; returns 1.
int volsetlabel(const char *label);
// Numeric id of a catalogue name ("zrvm.kmesg" 0, unknown names 7).
int volcat_name_to_id(const char *name);
// The current locale's catalogue directory, or null for C, POSIX and English.
char *volget_LC_MESSAGES_dir(void);

// Splits a message address.  Mode 1 (printing): number up to the second
// colon, *rest just behind it.  Mode 0 (gettxt): number up to the end.
// *number is -1 when the text has no valid address.  *cat_name points into
// a shared scratch buffer.
void extract_cat_mid_str(int mode, const char *text, int *number, char **cat_name,
                         const char **rest);
// Looks message `number` up.  *result is the catalogue text or def.  When a
// private catalogue (named in the address) was opened, *opened holds its
// descriptor and the caller closes it after use; otherwise (nl_catd)-1.
void vol_getformat(const char *cat_name, int number, char *path, size_t path_size,
                   const char *def, const char **result, nl_catd *opened);
// The looked-up text alone, for callers that format themselves.  A text
// from a private catalogue is a copy that stays valid until the next such
// call; otherwise the catalogue's own text or def.
const char *gettxt(const char *address, const char *def);
