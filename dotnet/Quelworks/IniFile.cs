// INI files: every call reads the file, edits write it back whole.
using System;

namespace Quelworks
{
    /// <summary>Queries and edits of one INI file. Names match exactly (case-sensitive); the
    /// file is read on every call and edits write it back whole.</summary>
    public sealed class IniFile
    {
        private readonly byte[] file;

        /// <summary>Operations on the file at path (UTF-8 on every system).</summary>
        public IniFile(string path)
        {
            if (path == null) throw new ArgumentNullException("path");
            Path = path;
            file = Utf8.ToNative(path, "path");
        }

        /// <summary>The file's path.</summary>
        public string Path { get; private set; }

        /// <summary>Writes an empty file (creating or emptying it).</summary>
        public void Create()
        {
            Call.Check(NativeMethods.qw_ini_create(file));
        }

        /// <summary>The key's value, or defaultValue when the key is absent.</summary>
        public string Get(string section, string key, string defaultValue = null)
        {
            if (!Has(section, key)) return defaultValue;
            byte[] s = N(section, "section"), k = N(key, "key");
            return Call.Text((byte[] b, int size, out int n) => NativeMethods.qw_ini_get_value(file, s, k, b, size, out n));
        }

        /// <summary>Whether the key exists in the section (a file that cannot be opened counts as true).</summary>
        public bool Has(string section, string key)
        {
            int exists;
            Call.Check(NativeMethods.qw_ini_record_exists(file, N(section, "section"), N(key, "key"), out exists));
            return exists != 0;
        }

        /// <summary>Whether the section exists.</summary>
        public bool HasSection(string section)
        {
            int exists;
            Call.Check(NativeMethods.qw_ini_section_exists(file, N(section, "section"), out exists));
            return exists != 0;
        }

        /// <summary>Sets the key (adding it, and the section, when missing); the value is written
        /// as its invariant text.</summary>
        public void Set(string section, string key, object value)
        {
            if (value == null) throw new ArgumentNullException("value");
            string text = Convert.ToString(value, System.Globalization.CultureInfo.InvariantCulture);
            Call.Check(NativeMethods.qw_ini_set_value(file, N(section, "section"), N(key, "key"), N(text, "value")));
        }

        /// <summary>Deletes the key, or the whole section when key is null.</summary>
        public void Delete(string section, string key = null)
        {
            if (key == null)
                Call.Check(NativeMethods.qw_ini_delete_section(file, N(section, "section")));
            else
                Call.Check(NativeMethods.qw_ini_delete_record(file, N(section, "section"), N(key, "key")));
        }

        /// <summary>Adds an empty section.</summary>
        public void AddSection(string section)
        {
            Call.Check(NativeMethods.qw_ini_add_section(file, N(section, "section")));
        }

        /// <summary>Renames a section.</summary>
        public void RenameSection(string oldName, string newName)
        {
            Call.Check(NativeMethods.qw_ini_rename_section(file, N(oldName, "oldName"), N(newName, "newName")));
        }

        /// <summary>Comments the entry out with '#' or ';'.</summary>
        public void CommentRecord(string section, string key, char commentChar = '#')
        {
            if (commentChar != '#' && commentChar != ';')
                throw new ArgumentOutOfRangeException("commentChar", "a comment starts with '#' or ';'");
            Call.Check(NativeMethods.qw_ini_comment_record(file, N(section, "section"), N(key, "key"), (byte)commentChar));
        }

        /// <summary>Makes a commented-out entry live again.</summary>
        public void UncommentRecord(string section, string key)
        {
            Call.Check(NativeMethods.qw_ini_uncomment_record(file, N(section, "section"), N(key, "key")));
        }

        /// <summary>Sorts the sections by name and the keys within each (bytewise; descending when asked).</summary>
        public void Sort(bool descending = false)
        {
            Call.Check(NativeMethods.qw_ini_sort(file, descending ? 1 : 0));
        }

        /// <summary>The section names in file order.</summary>
        public string[] Sections()
        {
            StringsHandle names;
            Call.Check(NativeMethods.qw_ini_section_names(file, out names));
            using (names) return names.ToArray();
        }

        /// <summary>The file as the library reads it, one record per line.</summary>
        public string Content()
        {
            return Call.Text((byte[] b, int size, out int n) => NativeMethods.qw_ini_content(file, b, size, out n));
        }

        private static byte[] N(string text, string what)
        {
            if (text == null) throw new ArgumentNullException(what);
            return Utf8.ToNative(text, what);
        }
    }
}
