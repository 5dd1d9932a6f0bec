/// \file
/// INI files through static operations on a file name.
///
/// Every operation reads the whole file into an ordered array of records, works on that array and,
/// for edits, writes the whole array back. Nothing is cached between calls. Names of sections and
/// keys match exactly and case-sensitively; a key comes before its section, and the file name is
/// always the last argument.
///
/// The format is read leniently and written in one fixed shape: comment lines ('#' or ';' first,
/// no '[' and no '=') are kept with the entry that follows them; an entry whose line starts with
/// '#' or ';' and holds '[' or '=' is a commented-out entry; blank lines are dropped; and live
/// entries are written with one leading blank (" [Main]", " Port=COM3"). A last line without a
/// line feed is not read. A line holding a '[' that has no ']' after its first character makes
/// every operation that reads the file throw std::out_of_range, and an edit then writes nothing.
#ifndef QUELWORKS_INI_INI_FILE_H
#define QUELWORKS_INI_INI_FILE_H

#include <string>
#include <vector>

#include "quelworks/export.h"

/// INI files through static operations on a file name; nothing is kept between calls.
class QUELWORKS_API CIniFile {
public:
    /// One entry of a file: a section header (empty Key) or a key entry.
    struct Record {
        std::string Comments;  ///< comment lines before the entry, each ended by "\n"
        char Commented = ' ';  ///< '#' or ';' for a commented-out entry, ' ' for a live one
        std::string Section;   ///< the header's name, or the section a key belongs to
        std::string Key;       ///< empty for a section header
        std::string Value;     ///< empty for a section header
    };

    /// The two comment characters an entry can be commented out with.
    enum CommentChar { Hash = '#', Semicolon = ';' };

    /// Nothing to set up: every operation is static.
    CIniFile();
    /// Nothing to copy.
    CIniFile(const CIniFile&);
    /// Nothing to copy.
    CIniFile& operator=(const CIniFile&);
    /// Virtual, so that classes derived from it can be deleted through it.
    virtual ~CIniFile();

    /// The file rendered as text: each record on its own line ended by "\n", comments first, the
    /// comment character of a commented-out entry in front, live entries without a leading blank.
    /// Empty when the file cannot be opened.
    static std::string Content(std::string FileName);
    /// Writes an empty file (creating it, or emptying an existing one).
    static bool Create(std::string FileName);

    /// Queries.
    static std::vector<std::string> GetSectionNames(std::string FileName);
    /// The key records of the section, in file order (not its header).
    static std::vector<Record> GetSection(std::string SectionName, std::string FileName);
    /// The first matching key's record, or an empty vector when there is none.
    static std::vector<Record> GetRecord(std::string KeyName, std::string SectionName,
                                         std::string FileName);
    /// The first matching key's value, or "" when there is none.
    static std::string GetValue(std::string KeyName, std::string SectionName, std::string FileName);
    /// Both give true when the file cannot be opened: only a file that was read and holds no match
    /// gives false.
    static bool RecordExists(std::string KeyName, std::string SectionName, std::string FileName);
    /// Whether the section exists; see RecordExists for an unreadable file.
    static bool SectionExists(std::string SectionName, std::string FileName);

    /// Edits. Each returns false without writing when the file cannot be read, and otherwise what
    /// writing the file back gave. None of them creates a missing file. Edits of one file from
    /// several threads or processes take turns (queries never wait); one that waits more than 5 s
    /// for another editor returns false and changes nothing.
    static bool SetValue(std::string KeyName, std::string Value, std::string SectionName,
                         std::string FileName);
    /// Appends a header for the section at the end; an existing section of that name is not
    /// checked.
    static bool AddSection(std::string SectionName, std::string FileName);
    /// Renames the section: its header and its keys.
    static bool RenameSection(std::string OldSectionName, std::string NewSectionName,
                              std::string FileName);
    /// Comments out the first matching key's entry with cc.
    static bool CommentRecord(CommentChar cc, std::string KeyName, std::string SectionName,
                              std::string FileName);
    /// Makes the first matching key's entry live again.
    static bool UnCommentRecord(std::string KeyName, std::string SectionName, std::string FileName);
    /// Comments out the section's header and all its entries with cc.
    static bool CommentSection(char cc, std::string SectionName, std::string FileName);
    /// Makes a commented-out section and its entries live again.
    static bool UnCommentSection(std::string SectionName, std::string FileName);
    /// Removes the first matching key's entry with its comments.
    static bool DeleteRecord(std::string KeyName, std::string SectionName, std::string FileName);
    /// Removes the section with all its entries.
    static bool DeleteSection(std::string SectionName, std::string FileName);
    /// Replaces the comment lines before the section's header.
    static bool SetSectionComments(std::string Comments, std::string SectionName,
                                   std::string FileName);
    /// Replaces the comment lines before the key's entry.
    static bool SetRecordComments(std::string Comments, std::string KeyName,
                                  std::string SectionName, std::string FileName);
    /// Sorts the sections by name and the keys within each section by name, bytewise (Descending
    /// reverses both); false, writing nothing, for a file without a section.
    static bool Sort(std::string FileName, bool Descending);

private:
    static std::vector<Record> GetSections(std::string FileName);
    static bool Load(std::string FileName, std::vector<Record>& content);
    static bool Save(std::string FileName, std::vector<Record>& content);
    static void Trim(std::string& str, std::string ChrsToTrim);
};

#endif  // QUELWORKS_INI_INI_FILE_H
