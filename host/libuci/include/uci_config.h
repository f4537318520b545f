/* Where configuration is looked for unless a context is set otherwise. */
#ifndef UCI_CONFIG_H
#define UCI_CONFIG_H

#define UCI_CONFDIR "/etc/config" /* configuration files, one a package */
#define UCI_SAVEDIR "/tmp/.uci"   /* saved changes that are not committed, one file a package */

#endif
