# The zfx command's contract without a service: --help for the command, every group and every
# command; usage errors (exit 2, a message and a hint to --help) found before any connection is
# tried; and no service (exit 1, naming the socket and why).
# Arguments: ZFX (the program), EMULATOR (empty or the cross-run command), WORK.
cmake_minimum_required(VERSION 3.25)  # lists keep their empty elements
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

set(RUN_PREFIX ${ZFX})
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

# Every command with arguments it accepts.
set(commands
  "zone create web --qos high --read-only --id 3"
  "zone delete web"
  "zone rename web www"
  "zone attribute web --qos none --read-only off"
  "zone show"
  "zone member add web --device-alias tape --lun 0x0001 --vsan 2 --afid 5 --id 7"
  "zone member remove web --pwwn 21:00:00:24:FF:4c:8a:01"
  "zone member show web --id 2"
  "zoneset create prod --id 2"
  "zoneset delete prod"
  "zoneset rename prod production"
  "zoneset add prod web db"
  "zoneset remove prod web"
  "zoneset show prod"
  "zoneset activate prod --force"
  "zoneset deactivate"
  "show active-zoneset"
  "status --vsan 4095 --form split"
  "info get activate-time"
  "info set log-level -1"
  "check-ignore on"
  "show device --ns"
  "show native-domain 10"
  "show proxy-domains 4095"
  "show next-hop 10 0x0a0001 0xef0000"
  "show nat next-hop 10 20 0x0a0001 0x0b0001"
  "ns get 21:00:00:24:ff:4c:8a:01 --vsan 10")

run(0 --help)
expect_text("${out}" "usage: zfx [--socket PATH] [--debug] COMMAND")
expect_text("${out}" "exit status")
string(REGEX MATCHALL "\n  (zone|zoneset|show|status|info|check-ignore|ns)[ \n]" listed "${out}")
list(LENGTH listed n_listed)
list(LENGTH commands n_commands)
if(NOT n_listed EQUAL n_commands)
  message(FATAL_ERROR "zfx --help lists ${n_listed} commands, this script checks ${n_commands}")
endif()
foreach(group zone "zone member" zoneset show "show nat" info ns)
  separate_arguments(words UNIX_COMMAND "${group}")
  run(0 ${words} --help)
  expect_text("${out}" "usage: zfx ${group} ")
endforeach()

set(ENV{ZFXD_SOCKET} ${WORK}/no-zfxd.sock)
foreach(command IN LISTS commands)
  separate_arguments(args UNIX_COMMAND "${command}")
  # The command's path: its words up to the first argument.
  string(REGEX MATCH "^(zone member [a-z]+|show nat [a-z-]+|(zone|zoneset|show|info|ns) [a-z-]+|[a-z-]+)" path "${command}")
  run(0 ${args} --help)
  expect_text("${out}" "usage: zfx ${path}")
  expect_text("${out}" "${path}:\n")
  run(1 ${args})
  expect_text("${err}" "zfx: cannot connect to zfxd at ${WORK}/no-zfxd.sock: ")
endforeach()
# --socket wins over the environment; without either, the default path is tried.
run(1 --socket ${WORK}/other.sock --debug status)
expect_text("${err}" "cannot connect to zfxd at ${WORK}/other.sock: ")

# What a user gets wrong, each found before a connection is tried (the socket is missing, so a
# connection attempt would exit 1).
set(usage_errors
  "|a command is needed|"
  "frobnicate|unknown command 'frobnicate'|"
  "--bogus status|unknown option --bogus|"
  "--socket|--socket needs a value|"
  "zone|zone needs a command|zone"
  "zone member frob|zone member: unknown command 'frob'|zone member"
  "zone create|zone create: missing argument (usage: zfx zone create NAME|zone create"
  "zone create a b|zone create: unexpected argument 'b'|zone create"
  "zone create aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa|must be 1 to 67 characters|zone create"
  "zone create a --qos urgent|--qos takes none, low, medium or high, not 'urgent'|zone create"
  "zone create a --id 8192|--id takes a number from 1 to 8191, not '8192'|zone create"
  "zone create a --read-only --read-only|--read-only is given twice|zone create"
  "zone create a --bogus|zone create: unknown option --bogus|zone create"
  "zone attribute a|zone attribute needs --qos or --read-only|zone attribute"
  "zone member add z|give either --pwwn WWN or --device-alias ALIAS|zone member add"
  "zone member add z --pwwn 21:00:00:24:ff:4c:8a|--pwwn takes a WWN of eight hexadecimal pairs|zone member add"
  "zone member add z --device-alias a --lun 0x1|--lun takes 0x and one to four levels|zone member add"
  "zone member add z --device-alias a --vsan 0|--vsan takes a number from 1 to 4095, not '0'|zone member add"
  "zone member remove z --id 2 --pwwn 21:00:00:24:ff:4c:8a:01|--pwwn does not go with it|zone member remove"
  "show nothing|show: unknown command 'nothing'|show"
  "status --form long|--form takes short, extended or split, not 'long'|status"
  "info get everything|unknown info key 'everything': a number, or one of zones, zonesets|info get"
  "info get 4294967296|unknown info key '4294967296'|info get"
  "info get activate-time --timeout 3|activate-time is read one way|info get"
  "info set log-level 2147483648|VALUE takes a number from -2147483648 to 2147483647|info set"
  "check-ignore maybe|check-ignore takes on or off, not 'maybe'|check-ignore"
  "show device extra|show device: unexpected argument 'extra'|show device"
  "show native-domain 0|show native-domain takes a VSAN from 1 to 4095, not '0'|show native-domain"
  "show proxy-domains 4096|show proxy-domains takes a VSAN from 1 to 4095, not '4096'|show proxy-domains"
  "show next-hop 10 0x0a01|an FCID is 0x and six hexadecimal digits (domain, area, port), as 0x0a0001, not '0x0a01'|show next-hop"
  "show nat next-hop 10 20 0x0a0001|show nat next-hop: missing argument|show nat next-hop"
  "show nat next-hop 10 10x 0x0a0001 0x0b0001|NEXT-VSAN takes a VSAN from 1 to 4095, not '10x'|show nat next-hop"
  "ns get 21:00|a port WWN is eight hexadecimal pairs, aa:bb:cc:dd:ee:ff:00:11, not '21:00'|ns get"
  "ns get 21:00:00:24:ff:4c:8a:01 --vsan 4096|--vsan takes a number from 1 to 4095, not '4096'|ns get")
foreach(case IN LISTS usage_errors)
  string(REPLACE "|" ";" parts "${case}")
  list(GET parts 0 command)
  list(GET parts 1 message)
  list(GET parts 2 hint)
  separate_arguments(args UNIX_COMMAND "${command}")
  run(2 ${args})
  string(FIND "${err}" "zfx: " at)
  if(NOT at EQUAL 0)
    message(FATAL_ERROR "zfx ${command}: the message does not begin with 'zfx: ':\n${err}")
  endif()
  expect_text("${err}" "${message}")
  if(hint STREQUAL "")
    expect_text("${err}" "Try 'zfx --help'.")
  else()
    expect_text("${err}" "Try 'zfx ${hint} --help'.")
  endif()
endforeach()
# A control character in a name is refused, and echoed as '?'.
run(2 zone create "a\tb")
expect_text("${err}" "zone name 'a?b' must be 1 to 67 characters")
