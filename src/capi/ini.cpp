// INI files (qw_ini_...) over CIniFile. Arguments run file, section, key; CIniFile takes them the
// other way round.
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "capi/capi_internal.h"
#include "platform/system_name.h"
#include "quelworks/ini/ini_file.h"

namespace quelworks::capi {
namespace {

struct RecordList {
    std::vector<CIniFile::Record> records;
};

// Runs one CIniFile operation with UTF-8 names; a malformed file (the library's out_of_range)
// becomes QW_ERR_FORMAT.
template <class Body>
qw_status iniCall(const char* file, Body&& body) {
    QW_REQUIRE(file, "null pointer: file");
    QW_REQUIRE(*file, "empty file name");
    try {
        quelworks::detail::Utf8NameScope utf8;
        return body(std::string(file));
    } catch (const std::out_of_range&) {
        return fail(QW_ERR_FORMAT, std::string("malformed INI file (a '[' without ']'): ") + file);
    }
}

qw_status edited(bool ok, const char* what, const char* file) {
    if (!ok)
        return fail(QW_ERR_FAILED, std::string(what) + " failed: cannot read or write " + file);
    return QW_OK;
}

qw_status makeRecords(std::vector<CIniFile::Record> records, qw_ini_records** out) {
    auto list = std::make_shared<RecordList>();
    list->records = std::move(records);
    return createHandle(Kind::IniRecords, std::move(list), out);
}

bool validCommentChar(char c) {
    return c == '#' || c == ';';
}

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

#define QW_TEXT(name) QW_REQUIRE(name, "null pointer: " #name)

extern "C" {

QW_C_API qw_status QW_CALL qw_ini_records_count(qw_ini_records* records, int32_t* count) {
    return guarded([&] {
        QW_FIND(r, RecordList, records, Kind::IniRecords);
        QW_REQUIRE(count, "null pointer: count");
        *count = static_cast<int32_t>(r->records.size());
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_ini_records_get(qw_ini_records* records, int32_t index, int32_t field,
                                              char* buffer, int32_t size, int32_t* needed) {
    return guarded([&] {
        QW_FIND(r, RecordList, records, Kind::IniRecords);
        QW_REQUIRE(index >= 0 && static_cast<std::size_t>(index) < r->records.size(),
                   "index out of range");
        const CIniFile::Record& record = r->records[static_cast<std::size_t>(index)];
        switch (field) {
            case QW_INI_FIELD_COMMENTS:
                return copyOut(record.Comments, buffer, size, needed);
            case QW_INI_FIELD_COMMENTED:
                return copyOut(std::string(1, record.Commented), buffer, size, needed);
            case QW_INI_FIELD_SECTION:
                return copyOut(record.Section, buffer, size, needed);
            case QW_INI_FIELD_KEY:
                return copyOut(record.Key, buffer, size, needed);
            case QW_INI_FIELD_VALUE:
                return copyOut(record.Value, buffer, size, needed);
            default:
                return fail(QW_ERR_INVALID_ARGUMENT, "unknown record field");
        }
    });
}

QW_C_API qw_status QW_CALL qw_ini_records_free(qw_ini_records* records) {
    return guarded([&] { return freeHandle(records, Kind::IniRecords); });
}

QW_C_API qw_status QW_CALL qw_ini_create(const char* file) {
    return guarded([&] {
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::Create(f), "creating the file", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_content(const char* file, char* buffer, int32_t size,
                                          int32_t* needed) {
    return guarded([&] {
        return iniCall(file, [&](std::string f) {
            return copyOut(CIniFile::Content(f), buffer, size, needed);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_section_names(const char* file, qw_strings** names) {
    return guarded([&] {
        QW_TEXT(names);
        return iniCall(
            file, [&](std::string f) { return makeStrings(CIniFile::GetSectionNames(f), names); });
    });
}

QW_C_API qw_status QW_CALL qw_ini_get_section(const char* file, const char* section,
                                              qw_ini_records** records) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(records);
        return iniCall(file, [&](std::string f) {
            return makeRecords(CIniFile::GetSection(section, f), records);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_get_record(const char* file, const char* section, const char* key,
                                             qw_ini_records** records) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        QW_TEXT(records);
        return iniCall(file, [&](std::string f) {
            return makeRecords(CIniFile::GetRecord(key, section, f), records);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_get_value(const char* file, const char* section, const char* key,
                                            char* buffer, int32_t size, int32_t* needed) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        return iniCall(file, [&](std::string f) {
            return copyOut(CIniFile::GetValue(key, section, f), buffer, size, needed);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_record_exists(const char* file, const char* section,
                                                const char* key, int32_t* exists) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        QW_TEXT(exists);
        return iniCall(file, [&](std::string f) {
            *exists = CIniFile::RecordExists(key, section, f) ? 1 : 0;
            return QW_OK;
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_section_exists(const char* file, const char* section,
                                                 int32_t* exists) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(exists);
        return iniCall(file, [&](std::string f) {
            *exists = CIniFile::SectionExists(section, f) ? 1 : 0;
            return QW_OK;
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_set_value(const char* file, const char* section, const char* key,
                                            const char* value) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        QW_TEXT(value);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::SetValue(key, value, section, f), "setting the value", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_add_section(const char* file, const char* section) {
    return guarded([&] {
        QW_TEXT(section);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::AddSection(section, f), "adding the section", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_rename_section(const char* file, const char* old_section,
                                                 const char* new_section) {
    return guarded([&] {
        QW_TEXT(old_section);
        QW_TEXT(new_section);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::RenameSection(old_section, new_section, f),
                          "renaming the section", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_comment_record(const char* file, const char* section,
                                                 const char* key, char comment_char) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        QW_REQUIRE(validCommentChar(comment_char), "comment character must be '#' or ';'");
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::CommentRecord(static_cast<CIniFile::CommentChar>(comment_char),
                                                  key, section, f),
                          "commenting out the record", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_uncomment_record(const char* file, const char* section,
                                                   const char* key) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::UnCommentRecord(key, section, f), "uncommenting the record",
                          file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_comment_section(const char* file, const char* section,
                                                  char comment_char) {
    return guarded([&] {
        QW_TEXT(section);
        QW_REQUIRE(validCommentChar(comment_char), "comment character must be '#' or ';'");
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::CommentSection(comment_char, section, f),
                          "commenting out the section", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_uncomment_section(const char* file, const char* section) {
    return guarded([&] {
        QW_TEXT(section);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::UnCommentSection(section, f), "uncommenting the section", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_delete_record(const char* file, const char* section,
                                                const char* key) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::DeleteRecord(key, section, f), "deleting the record", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_delete_section(const char* file, const char* section) {
    return guarded([&] {
        QW_TEXT(section);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::DeleteSection(section, f), "deleting the section", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_set_section_comments(const char* file, const char* section,
                                                       const char* comments) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(comments);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::SetSectionComments(comments, section, f),
                          "setting the section's comments", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_set_record_comments(const char* file, const char* section,
                                                      const char* key, const char* comments) {
    return guarded([&] {
        QW_TEXT(section);
        QW_TEXT(key);
        QW_TEXT(comments);
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::SetRecordComments(comments, key, section, f),
                          "setting the record's comments", file);
        });
    });
}

QW_C_API qw_status QW_CALL qw_ini_sort(const char* file, int32_t descending) {
    return guarded([&] {
        return iniCall(file, [&](std::string f) {
            return edited(CIniFile::Sort(f, descending != 0), "sorting the file", file);
        });
    });
}

}  // extern "C"
