"""Logs in, creates and starts a guest, waits until it runs, and prints its addresses.

usage: client.py URL USER NAME, with the password on standard input, because other users can read arguments.

vexa_api is made from the host's /openapi.json by tools/make-python-client.
"""
import sys
import time

from vexa_api import ApiError, Client


def main() -> int:
    url, user, name = sys.argv[1:]
    password = sys.stdin.readline().rstrip("\n")
    host = Client(url)
    host.token = host.core_session_login(user=user, password=password).get("token")
    guest = host.virtualization_guest_create(name=name, vcpu_num=1, vram_size=256, vnics=[{"network": "default"}])
    guest_id = guest["guest_id"]
    host.virtualization_guest_action_pwr_ctl(guest_id=guest_id, action="poweron")
    addresses: list[str] = []
    for _ in range(100):
        status = host.virtualization_guest_status(guest_id=guest_id)["status"]
        addresses = host.virtualization_guest_info(guest_id=guest_id)["ip"]
        if status == "running" and addresses:
            break
        time.sleep(0.3)
    print(f"{guest['name']} runs; its addresses: {', '.join(addresses) or 'none yet'}")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except ApiError as error:
        sys.exit(f"{error.code}: {error}")
