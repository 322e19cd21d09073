#!/bin/sh
# The six commands as a script around the sqlite3 shell: values are arguments at the same places as in bare.c, text
# comes on standard input. No value may contain a quote. `install -d` makes a directory with owner and mode at once, and
# the umask gives the new database its mode: each command takes as few programs as possible.
directory=/var/lib/quarn/mail/autoresponder
database=$directory/responder.db
mailnames=/var/qmail/mailnames
command=$1
mailbox=$2

database() {
  exec /usr/bin/sqlite3 -batch $database '.timeout 50' "$@"
}

# Makes standard input the only row of temp.input and runs statements; the text must not contain a record separator.
with_input() {
  database 'CREATE TEMP TABLE input (text)' '.import --ascii --schema temp /proc/self/fd/0 input' "$@"
}

attachments=$mailnames/${mailbox#*@}/${mailbox%%@*}/@attachments

case $command in
  init-db)
    umask 077
    rm -f $database
    install -d -o popuser -g root -m 0755 $directory
    /usr/bin/sqlite3 -batch $database "$2"
    exec chown popuser:popuser $database
    ;;
  set-resp)
    with_input 'BEGIN TRANSACTION' "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, \
content_type, charset, body, ans_freq, ans_limit, real_owner, mn) SELECT '', 'no', '$4', '', '', 'text/html', 'UTF-8', \
text, 10, 1000, '$3', '$mailbox' FROM temp.input" 'END TRANSACTION'
    ;;
  del-resp)
    database 'BEGIN TRANSACTION' "DELETE FROM attachments WHERE mn='$mailbox'" ".shell rm -rf $attachments/*" \
      "DELETE FROM autoresponder WHERE mn='$mailbox'" "DELETE FROM resp_freq WHERE mn='$mailbox'" 'END TRANSACTION'
    ;;
  add-attach)
    # The owner's address decides where the file goes, and a failed copy must add no row. sqlite3 does not report the
    # status of a .shell command, so this takes two runs of it.
    owner=$(database "SELECT real_owner FROM autoresponder WHERE mn='$mailbox'")
    [ -n "$owner" ] || exit 1
    attachments=$mailnames/${owner#*@}/${owner%%@*}/@attachments
    [ -d "$attachments" ] || install -d -o popuser -g popuser -m 0700 "$attachments" || exit 1
    /bin/cp "$4" "$attachments/$3" && chown popuser:popuser "$attachments/$3" || exit 1
    database "REPLACE INTO attachments VALUES ('$mailbox', '$3')"
    ;;
  del-attach)
    database 'BEGIN TRANSACTION' "SELECT real_owner FROM autoresponder WHERE mn='$mailbox'" \
      "DELETE FROM attachments WHERE mn='$mailbox' AND filename='$3'" 'END TRANSACTION' ".shell rm -f $attachments/$3"
    ;;
  set-extra-headers)
    with_input 'DELETE FROM extra_headers' 'BEGIN TRANSACTION' \
      'REPLACE INTO extra_headers SELECT key, value FROM temp.input, json_each(text)' 'END TRANSACTION'
    ;;
esac
