@echo off
rem Runs the tests of this kit. They change the machine: it must be one that may be thrown away.
rem usage: run.cmd --this-machine-may-be-thrown-away [--limit SECONDS] [PROGRAM...]
rem A 32-bit Windows cannot start the runner; a 32-bit prompt of a 64-bit one can.
if /i "%PROCESSOR_ARCHITECTURE%"=="x86" if not defined PROCESSOR_ARCHITEW6432 goto refused
"%~dp0kit_runner.exe" %*
exit /b %errorlevel%

:refused
echo The tests need a 64-bit Windows on an x64 processor. 1>&2
exit /b 2
