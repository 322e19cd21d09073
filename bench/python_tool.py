"""The tool as a Python program: the same command line, the same checks of it, failures in the system log."""

import argparse
import re
import sqlite3
import sys
import syslog

import python_way

SCHEMA = "/usr/sbin/schema.sql"
LOCAL_PART = re.compile(r"(?!\.)(?!.*\.\.)[A-Za-z0-9._&+'-]{1,245}(?<!\.)")
LABEL = r"[A-Za-z0-9][A-Za-z0-9-]{0,62}"
DOMAIN = re.compile(rf"(?=.{{1,255}}$)(?:{LABEL}(?<!-)\.)*{LABEL}")


def address(text):
    local_part, at, domain = text.partition("@")
    if not at or not LOCAL_PART.fullmatch(local_part) or not DOMAIN.fullmatch(domain):
        raise argparse.ArgumentTypeError(f"{text} - incorrect email address format")
    return text.lower()


def content_type(text):
    if text not in ("text/plain", "plain", "text/html", "html"):
        raise argparse.ArgumentTypeError(f"the argument ('{text}') is invalid")
    return text if "/" in text else "text/" + text


def parse_arguments():
    parser = argparse.ArgumentParser()
    commands = parser.add_argument_group("Allowed commands")
    for name in python_way.COMMANDS:
        commands.add_argument("--" + name, action="store_true")
    parser.add_argument("--mailname", type=address)
    parser.add_argument("--filename")
    values = parser.add_argument_group("Add and Update autoresponder command options")
    values.add_argument("--key-str", default="")
    values.add_argument("--key-where", default="no")
    values.add_argument("--subj", default="Re: <request_subject>")
    values.add_argument("--reply-to", default="")
    values.add_argument("--forward-to", default="")
    values.add_argument("--content-type", type=content_type, default="text/plain")
    values.add_argument("--charset", default="UTF-8")
    values.add_argument("--ans-freq", type=int, default=10)
    values.add_argument("--ans-limit", type=int, default=1000)
    values.add_argument("--real-owner", type=address)
    parser.add_argument("--source")
    return parser.parse_args()


def values_for(command, arguments):
    """What the function of that command takes."""
    if command == "set-resp":
        return [arguments.mailname, arguments.real_owner, arguments.subj, arguments.key_str, arguments.key_where,
                arguments.reply_to, arguments.forward_to, arguments.content_type, arguments.charset, arguments.ans_freq,
                arguments.ans_limit]
    if command == "init-db":
        with open(SCHEMA, encoding="utf-8") as schema:
            return [schema.read()]
    names = {"del-resp": ["mailname"], "add-attach": ["mailname", "filename", "source"],
             "del-attach": ["mailname", "filename"], "set-extra-headers": []}
    return [getattr(arguments, name) for name in names[command]]


def main():
    arguments = parse_arguments()
    for command, function in python_way.COMMANDS.items():
        if getattr(arguments, command.replace("-", "_")):
            try:
                function(*values_for(command, arguments))
            except (OSError, sqlite3.Error) as error:
                syslog.openlog("arspctl", syslog.LOG_PID, syslog.LOG_MAIL)
                syslog.syslog(syslog.LOG_ERR, str(error))
                return 1
            return 0
    return 0


sys.exit(main())
