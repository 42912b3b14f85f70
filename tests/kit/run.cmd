@echo off
rem Runs the tests of this kit. They change the machine: it must be one that may be thrown away.
rem usage: run.cmd --this-machine-may-be-thrown-away [--limit SECONDS] [PROGRAM...]
"%~dp0kit_runner.exe" %*
exit /b %errorlevel%
