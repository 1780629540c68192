# Daemon, front end and a channel in one container:
#
#   docker build -t lumo .
#   docker run --rm -p 8080:8080 lumo                                          # a channel with a test picture
#   docker run --rm -p 8080:8080 -p 7000:7000/udp lumo tv -- -i 'srt://0.0.0.0:7000?mode=listener' -c copy
#
# The data lie in /var/lib/lumo, a volume.

FROM debian:12-slim AS build
WORKDIR /src
COPY . .
RUN scripts/package.sh

FROM debian:12-slim
COPY --from=build /src/build/program/packages/*.deb /src/packaging/container/ /packages/
RUN /packages/setup /packages && mv /packages/run /usr/lib/lumo/run && rm -rf /packages /var/lib/apt/lists/*
USER lumo
VOLUME /var/lib/lumo
EXPOSE 8080
ENTRYPOINT ["/usr/lib/lumo/run"]
