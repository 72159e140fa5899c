#pragma once

// Directory under which each locale has a folder of message catalogues
// ("<root>/<locale>/zrvm.mesg").  It is fixed when the program is built, so it
// lives in its own translation unit: the shipped executable and the tests
// each link their own copy with their own build-time setting.
extern const char *vol_messages_root;
