"""What sanitizers have to say of any program of an instance: only some have an output that is read."""

import os


def report_to(directory, env):
    for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"):
        env[name] = (env.get(name, "") + " log_path=%s/sanitizer" % directory).strip()


def reports(directory):
    text = ""
    for name in os.listdir(directory) if os.path.isdir(directory) else ():
        if name.startswith("sanitizer."):
            with open(directory + "/" + name, encoding="utf-8", errors="replace") as file:
                text += file.read()
    return text
