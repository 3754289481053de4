#pragma once

/// "speakerd --adduser NAME [--admin] [CONFIG]": adds an account to the database that the configuration
/// names, while the service runs or not, and tells its number. The password is a line of standard input,
/// unless that is a terminal or the line is empty: then one is made and told. Returns the exit status: 0;
/// 1 with the reason on standard error; 2 for arguments that it can't take.
/// Needs the application object. For SQLite the working directory must be the service's.
int addUser(int argc, char** argv);
