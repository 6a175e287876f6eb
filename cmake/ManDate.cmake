# SPDX-License-Identifier: MIT
# VYRIX_MAN_DATE: the date the manual pages carry (YYYY-MM-DD).
# They carry the date of the newest changelog entry, so a rebuild
# gives the same bytes.
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/changelog.Debian _vyrix_signoff REGEX "^ -- " LIMIT_COUNT 1)
string(REGEX MATCH "[0-9]+ [A-Z][a-z][a-z] [0-9][0-9][0-9][0-9]" _vyrix_day "${_vyrix_signoff}")
string(REPLACE " " ";" _vyrix_day "${_vyrix_day}")
list(GET _vyrix_day 0 _day)
list(GET _vyrix_day 1 _month)
list(GET _vyrix_day 2 _year)
set(_months Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec)
list(FIND _months "${_month}" _month_index)
math(EXPR _month_number "${_month_index} + 1")
string(LENGTH "${_day}" _day_length)
if(_day_length EQUAL 1)
  set(_day "0${_day}")
endif()
if(_month_number LESS 10)
  set(_month_number "0${_month_number}")
endif()
set(VYRIX_MAN_DATE "${_year}-${_month_number}-${_day}")

