# Writes the manual page and the bash and zsh completions of quor-stdlib from
# the help that the built tool prints, so that none is written a second time: the
# subcommands come from the tool's command table, their options from its
# parser, the exit statuses and the environment from the same texts as --help.
#
#   cmake -DTOOL=<quor-stdlib> -DVERSION=<version> -DDOCDIR=<installed docs>
#         -DMANPAGE=<quor-stdlib.1> -DCOMPLETION=<bash file>
#         -DZSH_COMPLETION=<zsh file> -P GenerateToolReference.cmake
#
# The help is read as sections: a line that starts in the first column and
# ends with a colon opens one ("Options:", "Exit status:"); inside a section an
# entry starts two columns in, with its term, then two or more spaces and its
# description; a line indented further continues the description, or holds it
# when the term was too long to leave room for it.

cmake_minimum_required(VERSION 3.25)

foreach(_required TOOL VERSION DOCDIR MANPAGE COMPLETION ZSH_COMPLETION)
  if(NOT DEFINED ${_required} OR "${${_required}}" STREQUAL "")
    message(FATAL_ERROR "GenerateToolReference: ${_required} is not set")
  endif()
endforeach()

# CMake lists split at ';' and brackets change that, so the text is carried
# with these three characters replaced, and they are put back on output.
set(_semicolon "@QSEMI@")
set(_open "@QOPEN@")
set(_close "@QCLOSE@")

# Runs `quor-stdlib help [SUBCOMMAND]` and sets <prefix>_LINES to its lines.
function(_help_lines prefix)
  execute_process(COMMAND "${TOOL}" help ${ARGN}
    OUTPUT_VARIABLE _text ERROR_VARIABLE _error RESULT_VARIABLE _result)
  if(NOT _result EQUAL 0)
    message(FATAL_ERROR "GenerateToolReference: '${TOOL} help ${ARGN}' failed: ${_result}\n${_error}")
  endif()
  string(REPLACE ";" "${_semicolon}" _text "${_text}")
  string(REPLACE "[" "${_open}" _text "${_text}")
  string(REPLACE "]" "${_close}" _text "${_text}")
  string(REGEX REPLACE "\n$" "" _text "${_text}")
  string(REPLACE "\n" ";" _lines "${_text}")
  set(${prefix}_LINES "${_lines}" PARENT_SCOPE)
endfunction()

function(_restore out text)
  string(REPLACE "${_semicolon}" ";" text "${text}")
  string(REPLACE "${_open}" "[" text "${text}")
  string(REPLACE "${_close}" "]" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# From the lines of one help text: <prefix>_SUMMARY (its first line),
# <prefix>_USAGE (after "Usage: "), and for each section whose heading starts
# with <name>, <prefix>_<name>_TERMS and <prefix>_<name>_TEXTS, two lists of
# the same length. Sections are named by their heading's first word.
function(_parse prefix)
  set(_section "")
  set(_sections "")
  set(_first TRUE)
  foreach(_line IN LISTS ${prefix}_LINES)
    if(_first)
      set(${prefix}_SUMMARY "${_line}" PARENT_SCOPE)
      set(_first FALSE)
      continue()
    endif()
    if(_line MATCHES "^Usage: (.*)$")
      set(${prefix}_USAGE "${CMAKE_MATCH_1}" PARENT_SCOPE)
      set(_section "")
    elseif(_line MATCHES "^([A-Z][a-z]+)[^ ]*.*:$")
      set(_section "${CMAKE_MATCH_1}")
      list(APPEND _sections "${_section}")
      set(_terms_${_section} "")
      set(_texts_${_section} "")
    elseif(_line STREQUAL "" OR NOT _line MATCHES "^ ")
      set(_section "") # a note after the sections, or the blank line before one
    elseif(NOT _section STREQUAL "")
      if(_line MATCHES "^  ([^ ].*)$")
        set(_entry "${CMAKE_MATCH_1}")
        if(_entry MATCHES "^([^ ]+( [^ ]+)?)  +(.*)$")
          list(APPEND _terms_${_section} "${CMAKE_MATCH_1}")
          list(APPEND _texts_${_section} "${CMAKE_MATCH_3}")
        else()
          list(APPEND _terms_${_section} "${_entry}")
          list(APPEND _texts_${_section} "")
        endif()
      else()
        string(STRIP "${_line}" _more)
        list(LENGTH _texts_${_section} _count)
        if(_count EQUAL 0)
          message(FATAL_ERROR "GenerateToolReference: a continuation line opens a section: '${_line}'")
        endif()
        math(EXPR _last "${_count} - 1")
        list(GET _texts_${_section} ${_last} _text)
        if(_text STREQUAL "")
          set(_text "${_more}")
        else()
          set(_text "${_text} ${_more}")
        endif()
        list(REMOVE_AT _texts_${_section} ${_last})
        list(APPEND _texts_${_section} "${_text}")
      endif()
    endif()
  endforeach()
  foreach(_name IN LISTS _sections)
    set(${prefix}_${_name}_TERMS "${_terms_${_name}}" PARENT_SCOPE)
    set(${prefix}_${_name}_TEXTS "${_texts_${_name}}" PARENT_SCOPE)
  endforeach()
  set(${prefix}_SECTIONS "${_sections}" PARENT_SCOPE)
endfunction()

# Text for roff: backslashes and minus signs escaped, and a line that would
# start with a control character made safe.
function(_roff out text)
  _restore(text "${text}")
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  if(text MATCHES "^[.']")
    set(text "\\&${text}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Appends a .TP list of the section <prefix>_<name> to the variable `page`.
macro(_roff_entries prefix name)
  list(LENGTH ${prefix}_${name}_TERMS _n)
  if(_n GREATER 0)
    math(EXPR _n "${_n} - 1")
    foreach(_i RANGE ${_n})
      list(GET ${prefix}_${name}_TERMS ${_i} _term)
      list(GET ${prefix}_${name}_TEXTS ${_i} _text)
      _roff(_text "${_text}")
      # An option's value, and a positional argument, are set in italics.
      if(_term MATCHES "^([^ ]+) (.+)$")
        _roff(_names "${CMAKE_MATCH_1}")
        _roff(_value "${CMAKE_MATCH_2}")
        string(APPEND page ".TP\n.BI \"${_names} \" \"${_value}\"\n${_text}\n")
      else()
        _roff(_term "${_term}")
        string(APPEND page ".TP\n.B ${_term}\n${_text}\n")
      endif()
    endforeach()
  endif()
endmacro()

_help_lines(MAIN)
_parse(MAIN)
foreach(_needed Options Subcommands Exit Environment)
  if(NOT _needed IN_LIST MAIN_SECTIONS)
    message(FATAL_ERROR "GenerateToolReference: no '${_needed}' section in the tool's help")
  endif()
endforeach()
set(SUBCOMMANDS "${MAIN_Subcommands_TERMS}")
foreach(_name IN LISTS SUBCOMMANDS)
  _help_lines(SUB_${_name} ${_name})
  _parse(SUB_${_name})
endforeach()

# --- The manual page ---------------------------------------------------------

_restore(_summary "${MAIN_SUMMARY}")
string(REGEX REPLACE "\\.$" "" _name_line "${_summary}")
string(SUBSTRING "${_name_line}" 0 1 _initial)
string(TOLOWER "${_initial}" _initial)
string(SUBSTRING "${_name_line}" 1 -1 _rest)
_roff(_name_line "${_initial}${_rest}")
_roff(_summary "${_summary}")
_roff(_usage "${MAIN_USAGE}")
string(REGEX REPLACE "^quor\\\\-stdlib ?" "" _usage "${_usage}")
_roff(_version "${VERSION}")
_roff(_docdir "${DOCDIR}")

set(page "")
string(APPEND page
  ".\\\" Generated from the help of quor-stdlib by cmake/GenerateToolReference.cmake.\n"
  ".TH QUOR\\-STDLIB 1 \"\" \"quor\\-stdlib ${_version}\" \"Quor\"\n"
  ".SH NAME\nquor\\-stdlib \\- ${_name_line}\n"
  ".SH SYNOPSIS\n.B quor\\-stdlib\n${_usage}\n"
  ".SH DESCRIPTION\n${_summary}\n"
  ".SH OPTIONS\n")
_roff_entries(MAIN Options)
string(APPEND page ".SH SUBCOMMANDS\n")
foreach(_name IN LISTS SUBCOMMANDS)
  _roff(_sub_usage "${SUB_${_name}_USAGE}")
  _roff(_sub_summary "${SUB_${_name}_SUMMARY}")
  string(APPEND page ".SS \"${_sub_usage}\"\n${_sub_summary}\n")
  if("Positionals" IN_LIST SUB_${_name}_SECTIONS)
    _roff_entries(SUB_${_name} Positionals)
  endif()
  if("Options" IN_LIST SUB_${_name}_SECTIONS)
    _roff_entries(SUB_${_name} Options)
  endif()
endforeach()
string(APPEND page ".SH EXIT STATUS\n")
_roff_entries(MAIN Exit)
string(APPEND page ".SH ENVIRONMENT\n")
_roff_entries(MAIN Environment)
string(APPEND page
  ".SH SEE ALSO\n"
  "The README and the guides in\n.IR ${_docdir} :\n"
  "errors.md explains every message, security.md the trust rules of the cache,\n"
  "embedding.md how a compiler embeds the bootstrap.\n")
file(WRITE "${MANPAGE}.tmp" "${page}")
file(RENAME "${MANPAGE}.tmp" "${MANPAGE}")

# --- The bash completion -----------------------------------------------------

# Every option of one help text, and what its value is: a folder, a fixed set
# of words, or something to type (a number). Sets <prefix>_WORDS and adds to
# the global lists of options that take a value.
set(DIRECTORY_OPTIONS "")
set(FREE_OPTIONS "")
set(FILE_OPTIONS "")
set(CHOICE_CASES "")
function(_options prefix)
  set(_words "")
  foreach(_term IN LISTS ${prefix}_Options_TERMS)
    _restore(_term "${_term}")
    set(_value "")
    if(_term MATCHES "^([^ ]+) (.+)$")
      set(_term "${CMAKE_MATCH_1}")
      set(_value "${CMAKE_MATCH_2}")
    endif()
    string(REPLACE "," ";" _names "${_term}")
    list(APPEND _words ${_names})
    list(JOIN _names "|" _pattern)
    if(_value STREQUAL "")
      continue()
    elseif(_value MATCHES "{([^}]*)}")
      string(REPLACE "," " " _choices "${CMAKE_MATCH_1}")
      string(APPEND CHOICE_CASES
        "        ${_pattern}) COMPREPLY=($(compgen -W \"${_choices}\" -- \"$cur\")); return ;;\n")
    elseif(_value STREQUAL "DIR")
      list(APPEND DIRECTORY_OPTIONS ${_names})
    elseif(_value STREQUAL "FILE")
      list(APPEND FILE_OPTIONS ${_names})
    else()
      list(APPEND FREE_OPTIONS ${_names})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES DIRECTORY_OPTIONS)
  list(REMOVE_DUPLICATES FREE_OPTIONS)
  list(REMOVE_DUPLICATES FILE_OPTIONS)
  set(FILE_OPTIONS "${FILE_OPTIONS}" PARENT_SCOPE)
  set(DIRECTORY_OPTIONS "${DIRECTORY_OPTIONS}" PARENT_SCOPE)
  set(FREE_OPTIONS "${FREE_OPTIONS}" PARENT_SCOPE)
  set(CHOICE_CASES "${CHOICE_CASES}" PARENT_SCOPE)
  set(${prefix}_WORDS "${_words}" PARENT_SCOPE)
endfunction()

_options(MAIN)
foreach(_name IN LISTS SUBCOMMANDS)
  _options(SUB_${_name})
endforeach()

list(JOIN MAIN_WORDS " " _global)
list(JOIN SUBCOMMANDS " " _subcommand_words)
list(JOIN SUBCOMMANDS "|" _subcommand_pattern)
list(JOIN DIRECTORY_OPTIONS "|" _directory_pattern)
list(JOIN FREE_OPTIONS "|" _free_pattern)
list(JOIN FILE_OPTIONS "|" _file_pattern)
set(_valued ${DIRECTORY_OPTIONS} ${FILE_OPTIONS} ${FREE_OPTIONS})
string(REGEX MATCHALL "        ([^)]+)\\)" _choice_heads "${CHOICE_CASES}")
foreach(_head IN LISTS _choice_heads)
  string(REGEX REPLACE "^ *([^)]+)\\)$" "\\1" _head "${_head}")
  string(REPLACE "|" ";" _head "${_head}")
  list(APPEND _valued ${_head})
endforeach()
list(JOIN _valued "|" _valued_pattern)

set(_per_subcommand "")
foreach(_name IN LISTS SUBCOMMANDS)
  set(_words ${MAIN_WORDS} ${SUB_${_name}_WORDS})
  # A positional named "subcommand" (as `help` has) is one of the subcommands.
  foreach(_positional IN LISTS SUB_${_name}_Positionals_TERMS)
    if(_positional MATCHES "^subcommand( |$)")
      list(APPEND _words ${SUBCOMMANDS})
    endif()
  endforeach()
  list(REMOVE_DUPLICATES _words)
  list(JOIN _words " " _words)
  string(APPEND _per_subcommand "        ${_name}) candidates=\"${_words}\" ;;\n")
endforeach()

set(script "")
string(APPEND script
  "# bash completion for quor-stdlib ${VERSION}.\n"
  "# Generated from the help of quor-stdlib by cmake/GenerateToolReference.cmake.\n"
  "_quor_stdlib() {\n"
  "    local cur=\${COMP_WORDS[COMP_CWORD]} prev=\${COMP_WORDS[COMP_CWORD-1]}\n"
  "    case \$prev in\n")
if(NOT _directory_pattern STREQUAL "")
  string(APPEND script
    "        ${_directory_pattern}) COMPREPLY=(\$(compgen -d -- \"\$cur\")); return ;;\n")
endif()
string(APPEND script "${CHOICE_CASES}")
if(NOT _file_pattern STREQUAL "")
  string(APPEND script
    "        ${_file_pattern}) COMPREPLY=(\$(compgen -f -- \"\$cur\")); return ;;\n")
endif()
if(NOT _free_pattern STREQUAL "")
  string(APPEND script "        ${_free_pattern}) COMPREPLY=(); return ;;\n")
endif()
string(APPEND script
  "    esac\n"
  "    # The subcommand is the first word that is neither an option nor an option's value.\n"
  "    local subcommand= i\n"
  "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
  "        case \${COMP_WORDS[i]} in\n"
  "            ${_valued_pattern}) ((i++)) ;;\n"
  "            -*) ;;\n"
  "            *) subcommand=\${COMP_WORDS[i]}; break ;;\n"
  "        esac\n"
  "    done\n"
  "    local candidates\n"
  "    case \$subcommand in\n"
  "        '') candidates=\"${_global} ${_subcommand_words}\" ;;\n"
  "${_per_subcommand}"
  "        *) candidates=\"${_global}\" ;;\n"
  "    esac\n"
  "    COMPREPLY=(\$(compgen -W \"\$candidates\" -- \"\$cur\"))\n"
  "}\n"
  "complete -F _quor_stdlib quor-stdlib\n")
file(WRITE "${COMPLETION}.tmp" "${script}")
file(RENAME "${COMPLETION}.tmp" "${COMPLETION}")

# --- The zsh completion ------------------------------------------------------

# An option's description inside a single-quoted _arguments word: a quote
# would end the word, and a bracket the description.
function(_zsh_text out text)
  _restore(text "${text}")
  string(REPLACE "'" "'\\''" text "${text}")
  string(REPLACE "[" "\\[" text "${text}")
  string(REPLACE "]" "\\]" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# The _arguments words of the options of one help text, as a list, in
# <prefix>_ZSH.
function(_zsh_options prefix)
  set(_zsh_words "")
  list(LENGTH ${prefix}_Options_TERMS _n)
  if(_n GREATER 0)
    math(EXPR _n "${_n} - 1")
    foreach(_i RANGE ${_n})
      list(GET ${prefix}_Options_TERMS ${_i} _term)
      list(GET ${prefix}_Options_TEXTS ${_i} _text)
      _restore(_term "${_term}")
      set(_value "")
      if(_term MATCHES "^([^ ]+) (.+)$")
        set(_term "${CMAKE_MATCH_1}")
        set(_value "${CMAKE_MATCH_2}")
      endif()
      _zsh_text(_text "${_text}")
      string(REPLACE "," ";" _names "${_term}")
      list(LENGTH _names _count)
      if(_count GREATER 1)
        list(JOIN _names " " _exclusive)
        list(JOIN _names "," _alternatives)
        set(_head "'(${_exclusive})'{${_alternatives}}'")
      else()
        set(_head "'${_term}")
      endif()
      if(_value STREQUAL "")
        set(_action "")
      elseif(_value MATCHES "^([^:{]*):?{([^}]*)}")
        string(REPLACE "," " " _choices "${CMAKE_MATCH_2}")
        set(_action ":${CMAKE_MATCH_1}:(${_choices})")
      elseif(_value STREQUAL "DIR")
        set(_action ":${_value}:_files -/")
      elseif(_value STREQUAL "FILE")
        set(_action ":${_value}:_files")
      else()
        set(_action ":${_value}: ")
      endif()
      set(_zsh_word "${_head}[${_text}]${_action}'")
      string(REPLACE ";" "${_semicolon}" _zsh_word "${_zsh_word}")
      string(REPLACE "[" "${_open}" _zsh_word "${_zsh_word}")
      string(REPLACE "]" "${_close}" _zsh_word "${_zsh_word}")
      list(APPEND _zsh_words "${_zsh_word}")
    endforeach()
  endif()
  set(${prefix}_ZSH "${_zsh_words}" PARENT_SCOPE)
endfunction()

# The words of `list` one a line, each indented by `indent`, every line but
# the last continued with a backslash.
function(_zsh_lines out indent)
  list(JOIN ARGN " \\\n${indent}" _text)
  _restore(_text "${_text}")
  set(${out} "${indent}${_text}\n" PARENT_SCOPE)
endfunction()

_zsh_options(MAIN)
_zsh_lines(_zsh_global "        " ${MAIN_ZSH})
set(_zsh_subcommands "")
set(_zsh_cases "")
foreach(_name IN LISTS SUBCOMMANDS)
  _zsh_options(SUB_${_name})
  # _describe takes "name:description", and reads the description as it is.
  _restore(_summary "${SUB_${_name}_SUMMARY}")
  string(REPLACE "'" "'\\''" _summary "${_summary}")
  string(APPEND _zsh_subcommands "        '${_name}:${_summary}'\n")
  # The subcommand's own -h/--help is the global one; _arguments takes each once.
  set(_own ${SUB_${_name}_ZSH})
  if(_own AND MAIN_ZSH)
    list(REMOVE_ITEM _own ${MAIN_ZSH})
  endif()
  set(_zsh_words "\$global" ${_own})
  # A positional named "subcommand" (as `help` has) is one of the subcommands.
  foreach(_positional IN LISTS SUB_${_name}_Positionals_TERMS)
    if(_positional MATCHES "^subcommand( |$)")
      list(APPEND _zsh_words "'1:subcommand:(${_subcommand_words})'")
    endif()
  endforeach()
  _zsh_lines(_body "                " ${_zsh_words})
  string(APPEND _zsh_cases
    "        ${_name})\n"
    "            _arguments -s \\\n"
    "${_body}"
    "            ;;\n")
endforeach()

set(script "")
string(APPEND script
  "#compdef quor-stdlib\n"
  "# zsh completion for quor-stdlib ${VERSION}.\n"
  "# Generated from the help of quor-stdlib by cmake/GenerateToolReference.cmake.\n"
  "\n"
  "_quor_stdlib() {\n"
  "    # The global options are accepted before and after the subcommand.\n"
  "    local -a global subcommands\n"
  "    global=(\n"
  "${_zsh_global}"
  "    )\n"
  "    subcommands=(\n"
  "${_zsh_subcommands}"
  "    )\n"
  "    local curcontext=\$curcontext state line\n"
  "    typeset -A opt_args\n"
  "    _arguments -C -s \$global '1:subcommand:->subcommand' '*::argument:->argument' && return\n"
  "    case \$state in\n"
  "    subcommand)\n"
  "        _describe -t subcommands 'quor-stdlib subcommand' subcommands\n"
  "        ;;\n"
  "    argument)\n"
  "        curcontext=\${curcontext%:*:*}:quor-stdlib-\$line[1]:\n"
  "        case \$line[1] in\n"
  "${_zsh_cases}"
  "        esac\n"
  "        ;;\n"
  "    esac\n"
  "}\n"
  "\n"
  "_quor_stdlib \"\$@\"\n")
file(WRITE "${ZSH_COMPLETION}.tmp" "${script}")
file(RENAME "${ZSH_COMPLETION}.tmp" "${ZSH_COMPLETION}")
