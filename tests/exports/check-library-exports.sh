#!/usr/bin/env bash
# Checks that the shared library exports nothing but its public interface.
#
#   check-library-exports.sh LIBRARY INCLUDE_DIR
#   check-library-exports.sh --self-test INCLUDE_DIR
#
# LIBRARY is libquelworks.so (read with nm -D) or quelworks.dll (its export table, read with
# objdump -p); names are demangled with c++filt. The public interface lives in the global
# namespace, so a name is refused when
#  - it mentions namespace quelworks::detail, or a name in namespace quelworks that the public
#    headers do not declare (also as a template argument of a standard template: typeinfo, vtables
#    and functions of std::thread or std::vector over an internal type), or an anonymous namespace;
#  - or a global name in it (one that does not stand after "::") is neither declared in
#    INCLUDE_DIR's headers nor a word of the language (int, const, operator, ...) nor std,
#    __gnu_cxx or __cxxabiv1: an internal helper that lost its namespace. Names with a leading
#    underscore belong to the compiler's library, and members (after "::", "." or "->") to what
#    they are members of.
# Instantiations of standard templates over public types (std::vector<Vector2f> members that the
# compiler emits out of line) pass: they are the public types' own, and a program that needs
# them makes its own copy anyway. --self-test runs the rule on made-up names, each of which must
# get the expected verdict, so that a broken rule cannot pass every library.
set -euo pipefail
work=$(mktemp -d /tmp/qw-lib-exports.XXXXXX)
trap 'rm -rf "$work"' EXIT

# Every identifier of the public headers, comments left out.
public_words() {
    local include_dir=$1
    find "$include_dir" -name '*.h' -exec cat {} + |
        sed -e 's://.*$::' -e 's:/\*.*\*/::g' -e '/^[[:space:]]*\*/d' -e '/^[[:space:]]*\/\*/d' |
        grep -oE '[A-Za-z_][A-Za-z0-9_]*' | sort -u
}

# Reads demangled names on stdin, prints each refused one with the reason.
refused_names() {
    local words=$1
    awk -v words="$words" '
        BEGIN {
            while ((getline w < words) > 0) known[w] = 1
            n = split("std __gnu_cxx __cxxabiv1 operator new delete void bool char wchar_t " \
                      "char8_t char16_t char32_t short int long signed unsigned float double " \
                      "const volatile decltype auto lambda parm unnamed type this timespec timeval tm FILE", \
                      builtin, " ")
            for (i = 1; i <= n; i++) known[builtin[i]] = 1
        }
        {
            name = $0
            # Namespace quelworks holds the public additions beyond the classic interface
            # (quelworks::ListPortDetails): a name there passes only when the public headers
            # declare it, and nothing of quelworks::detail ever does.
            s = name
            internal = 0
            while (match(s, /quelworks::[A-Za-z_][A-Za-z0-9_]*/)) {
                word = substr(s, RSTART + 11, RLENGTH - 11)
                s = substr(s, RSTART + RLENGTH)
                if (word == "detail" || !(word in known)) { internal = 1; break }
            }
            if (internal) { print "internal namespace: " name; next }
            if (name ~ /\(anonymous namespace\)/) { print "anonymous namespace: " name; next }
            s = name
            sub(/^(typeinfo name for|typeinfo for|vtable for|VTT for|construction vtable for|guard variable for|non-virtual thunk to|virtual thunk to|covariant return thunk to) /, "", s)
            gsub(/\[abi:[A-Za-z0-9_]+\]/, "", s)
            bad = ""
            while (match(s, /[A-Za-z0-9_]+/)) {
                word = substr(s, RSTART, RLENGTH)
                before = substr(s, 1, RSTART - 1)
                s = substr(s, RSTART + RLENGTH)
                if (word ~ /^[0-9]/ || word ~ /^_/) continue   # literals; the implementation'"'"'s names
                if (word ~ /_t$/) continue                       # the C library'"'"'s types
                if (before ~ /(::~?|\.|->)$/) continue         # members of what comes before
                if (!(word in known)) { bad = word; break }
            }
            if (bad != "") print "not declared in the public headers (" bad "): " name
        }'
}

if [ "${1:-}" = "--self-test" ]; then
    public_words "$2" >"$work/words"
    cat >"$work/good" <<'NAMES'
CRC_CCITT::ComputeChecksum(unsigned char*, int)
typeinfo for RS232Async
vtable for CIniFile
RList<char*>::msort(CompareStruct<char*>)
convertFloat[abi:cxx11](float)
CIniFile::Record& std::vector<CIniFile::Record, std::allocator<CIniFile::Record> >::emplace_back<CIniFile::Record>(CIniFile::Record&&)
operator new(unsigned long, void*)
__gnu_cxx::char_traits<char>::length(char const*)
quelworks::ListPortDetails()
void std::_Destroy_aux<false>::__destroy<quelworks::PortDetails*>(quelworks::PortDetails*, quelworks::PortDetails*)
NAMES
    cat >"$work/bad" <<'NAMES'
quelworks::detail::PolygonIndex::contains(pointf, quelworks::detail::PolygonScratch&) const
quelworks::CheckPortName(std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> > const&)
typeinfo for std::thread::_State_impl<std::thread::_Invoker<std::tuple<int (*)(RS232Async*, quelworks::detail::AsyncLinkState*), RS232Async*, quelworks::detail::AsyncLinkState*> > >
std::vector<(anonymous namespace)::Edge, std::allocator<(anonymous namespace)::Edge> >::~vector()
bandOf(float)
std::vector<EdgeBucket, std::allocator<EdgeBucket> >::reserve(unsigned long)
NAMES
    status=0
    refused_names "$work/words" <"$work/good" >"$work/out"
    if [ -s "$work/out" ]; then
        echo "self-test: public names refused:" >&2
        cat "$work/out" >&2
        status=1
    fi
    refused_names "$work/words" <"$work/bad" >"$work/out"
    if [ "$(wc -l <"$work/out")" -ne "$(wc -l <"$work/bad")" ]; then
        echo "self-test: internal names let through (refused only these):" >&2
        cat "$work/out" >&2
        status=1
    fi
    [ "$status" -eq 0 ] && echo "self-test: the rule tells public from internal names"
    exit "$status"
fi

lib=$1
public_words "$2" >"$work/words"
case "$lib" in
*.dll)
    objdump=$(command -v x86_64-w64-mingw32-objdump || command -v objdump)
    "$objdump" -p "$lib" |
        awk '/\[Ordinal\/Name Pointer\] Table/ {on = 1; next}
             on && /^[[:space:]]*\[/ {print $NF; next}
             {on = 0}' >"$work/mangled"
    ;;
*)
    nm -D --defined-only "$lib" | awk '$2 ~ /^[TtWwDdBbRrVvUuGgSs]$/ {print $3}' |
        sed 's/@.*//' >"$work/mangled"
    ;;
esac
if [ ! -s "$work/mangled" ]; then
    echo "check-library-exports: no exports read from $lib" >&2
    exit 1
fi
c++filt <"$work/mangled" | sort -u >"$work/exported"
if ! grep -q '^CRC_CCITT::ComputeChecksum' "$work/exported"; then
    echo "check-library-exports: $lib does not export the public CRC_CCITT::ComputeChecksum" >&2
    exit 1
fi
refused_names "$work/words" <"$work/exported" >"$work/refused"
if [ -s "$work/refused" ]; then
    echo "check-library-exports: $lib exports $(wc -l <"$work/refused") names outside its public interface:" >&2
    head -n 40 "$work/refused" >&2
    exit 1
fi
echo "$lib exports $(wc -l <"$work/exported") names, all of the public interface"
