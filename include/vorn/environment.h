/* The environment of the process, from which the library takes all its settings.
 *
 * Change it through these functions, not through putenv, for a change to take effect on settings that the
 * library has read already (the user log, the switches of VORN_SEMANTICS). No other thread may be inside
 * the library while the environment changes. */
#ifndef VORN_ENVIRONMENT_H
#define VORN_ENVIRONMENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* The value of a variable, as getenv; NULL if it isn't set. It stays the environment's. Clears tperrno. */
char *tpgetenv(const char *name);

/* putenv: `string` is "NAME=value", and itself becomes part of the environment: it must stay as it is.
 * Gives what putenv gives (0 on success); -1 with TPEINVAL for NULL. */
int tpputenv(char *string);

/* Reads an environment file and puts its assignments into the environment: the lines before the first
 * label, those behind a line "[]", and, if `label` isn't NULL, those of the section "[label]". A line is
 * at most 1023 bytes: NAME=value, NAME="value with blanks", one $NAME, ${NAME} or $(NAME) at the end of a
 * value; "#", "/", ";" or "!" begins a comment. Lines in error are logged and passed over. 1, or -1 with
 * tperrno TPEINVAL: no such file, or no assignment in it. `file` should be given: the default name is that
 * of another platform. */
int vornreadenv(const char *file, const char *label);

/* The same calls under the names of the other interface. */
char *tuxgetenv(const char *name);                   /* as tpgetenv */
int tuxputenv(char *string);                         /* as tpputenv */
int tuxreadenv(const char *file, const char *label); /* as vornreadenv */

#ifdef __cplusplus
}
#endif
#endif
