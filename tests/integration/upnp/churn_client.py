"""Opens COUNT connections one after another to URL, each with one
keep-alive GET whose answer is read in full; the client then closes the
connection. Prints the number of 200 answers."""
import http.client
import sys
import urllib.parse

url = urllib.parse.urlsplit(sys.argv[1])
count = int(sys.argv[2])
ok = 0
for _ in range(count):
    connection = http.client.HTTPConnection(url.hostname, url.port, timeout=10)
    connection.request("GET", url.path, headers={"Connection": "keep-alive"})
    response = connection.getresponse()
    response.read()
    ok += response.status == 200
    connection.close()
print(ok)
