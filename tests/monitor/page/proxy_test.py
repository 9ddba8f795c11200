#!/usr/bin/python3
"""The page behind nginx by packaging/nginx/zentmon.conf: proxy_test.py ZENTMON CONFIG. Exit code 77: skipped."""

import json
import os
import shutil
import socket
import subprocess
import sys
import time

from zentmon_run import Zentmon, free_port, open_browser, wait_for

SKIPPED = 77
USER, PASSWORD = "operator", "a-secret"

FRAME = """
user root;
daemon off;
master_process off;
pid {folder}/nginx.pid;
error_log {folder}/error.log;
events {{}}
http {{
    access_log off;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    include {folder}/zentmon.conf;
}}
"""


def make_files(config, folder, port, zentmon):
    """The documented configuration with this test's ports and files in place of its own."""
    text = open(config, encoding="utf-8").read()
    for documented, ours in (("listen 443 ssl", f"listen 127.0.0.1:{port} ssl"),
                             ("127.0.0.1:8580/;", f"127.0.0.1:{zentmon.http_port}/;"),
                             ("/etc/ssl/certs/mon.example.org.pem", f"{folder}/cert.pem"),
                             ("/etc/ssl/private/mon.example.org.key", f"{folder}/key.pem"),
                             ("auth_basic_user_file /etc/nginx/", f"auth_basic_user_file {folder}/")):
        assert documented in text, documented
        text = text.replace(documented, ours)
    with open(f"{folder}/zentmon.conf", "w", encoding="utf-8") as out:
        out.write(text)
    with open(f"{folder}/nginx.conf", "w", encoding="utf-8") as out:
        out.write(FRAME.format(folder=folder))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                    "/CN=localhost", "-keyout", f"{folder}/key.pem", "-out", f"{folder}/cert.pem"],
                   check=True, capture_output=True)
    hashed = subprocess.run(["openssl", "passwd", "-apr1", PASSWORD], check=True, capture_output=True, text=True)
    with open(f"{folder}/zentmon.htpasswd", "w", encoding="utf-8") as out:
        out.write(f"{USER}:{hashed.stdout}")


def curl(*arguments):
    done = subprocess.run(["curl", "-sk", "--max-time", "180", *arguments], capture_output=True, text=True, check=False)
    return done.stdout


def code_of(*arguments):
    return curl("-o", "/dev/null", "-w", "%{http_code}", *arguments)


def answers_come_through(base, zentmon):
    assert code_of(base) == "401"
    login = ("-u", f"{USER}:{PASSWORD}")
    assert code_of(*login, base) == "200"
    assert code_of(*login, base.rstrip("/")) == "301"
    zentmon.join("127.0.0.11", "239.1.0.1")
    groups = json.loads(curl(*login, base + "groups.json"))["groups"]
    assert [row["group"] for row in groups] == ["239.1.0.1"], groups
    assert "Content-Security-Policy: default-src 'none'" in curl(*login, "-i", base + "app.js")
    assert code_of(*login, "-X", "POST", base) == "405"


def an_event_comes_through_at_once(base, zentmon):
    since = zentmon.json("groups.json?limit=0")["last_id"]
    stream = subprocess.Popen(["curl", "-skN", "--max-time", "180", "-u", f"{USER}:{PASSWORD}",
                               f"{base}events?since={since}"], stdout=subprocess.PIPE, text=True)
    try:
        assert stream.stdout.readline() == "retry: 1000\n"
        zentmon.join("127.0.0.11", "239.1.0.2")
        begun = time.monotonic()
        while "239.1.0.2" not in stream.stdout.readline():
            assert time.monotonic() - begun < 60
    finally:
        stream.kill()
        stream.wait()
        stream.stdout.close()


def the_page_lives_behind_a_path(base, zentmon):
    try:
        browser = open_browser(extra=("--ignore-certificate-errors",))
    except (ImportError, OSError) as error:
        print(f"       without a browser: {error}")
        return
    try:
        browser.get(base.replace("https://", f"https://{USER}:{PASSWORD}@"))
        def shown():
            return browser.execute_script("return document.getElementById('groups').innerText")
        wait_for(lambda: "239.1.0.2" in shown(), "the page to show the group")
        wait_for(lambda: browser.execute_script("return document.body.dataset.link") == "live", "the stream")
        zentmon.join("127.0.0.11", "239.1.0.3")
        wait_for(lambda: "239.1.0.3" in shown(), "an event to reach the page")
    finally:
        browser.quit()


def main():
    program, config = sys.argv[1:3]
    missing = [tool for tool in ("nginx", "openssl", "curl") if not shutil.which(tool)]
    if missing or os.geteuid() != 0:
        print(f"skipped: {', '.join(missing) or 'root'} is missing")
        return SKIPPED
    with Zentmon(program) as zentmon:
        port = free_port(socket.SOCK_STREAM)
        make_files(config, zentmon.folder, port, zentmon)
        nginx = subprocess.Popen(["nginx", "-p", zentmon.folder, "-c", f"{zentmon.folder}/nginx.conf"],
                                 stderr=subprocess.DEVNULL)
        try:
            base = f"https://127.0.0.1:{port}/zentmon/"
            wait_for(lambda: code_of(base) != "000", "nginx to answer")
            for test in (answers_come_through, an_event_comes_through_at_once, the_page_lives_behind_a_path):
                test(base, zentmon)
                print(f"ok     {test.__name__}")
        finally:
            nginx.terminate()
            nginx.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
