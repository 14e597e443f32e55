#pragma once

#include <QString>

// The numbered UI texts of the client family.
//
// Every user-visible text has a fixed id and a symbolic key. The table holds
// the English texts only; the translation comes from the catalogue installed
// in the application, in which each English text is a source text of the
// context "global". Several ids may share one English text and so share its
// translation.
//
// The ids are an interface with the callers and never change their meaning.
// The rows themselves are generated at build time from texts/strtab.tsv.
class StrTable {
public:
    static const int NUM_STRING_IDS = 715;

    // Key and English text (UTF-8) of each id, filled by InitStrTable.
    static const char *ktab[NUM_STRING_IDS];
    static const char *stab[NUM_STRING_IDS];

    // Fills ktab and stab. Called once at start-up, after the catalogue is
    // installed and before any text is asked for; calling it again is harmless.
    static void InitStrTable();

    // The text of id (0 to NUM_STRING_IDS - 1) in the current language, with
    // the escapes backslash-n and backslash-t turned into a line break and a tab.
    static QString LoadStr(int id);

    // The first id whose key equals key, ignoring ASCII case, or -1.
    static int LookupStrID(QString key);
};
