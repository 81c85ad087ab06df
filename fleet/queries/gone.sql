-- Which hangs are gone since a build: seen in a build active before it, and not in it or a later one?
--   build     fingerprint of the build
--   top       number of hangs (20)
-- expected: what the build and later ones would have had by now, at the rate per active device and
-- day of the builds before. Where it is small, a hang may be rare and not gone. Builds that no device
-- was counted active with are left out.
SELECT
    signature_id, any(of_program) AS program, sum(count_in_build) AS incidents_before,
    round(incidents_before * (
        SELECT sum(devices) FROM fleet.active_devices FINAL WHERE fingerprint GLOBAL IN (
            SELECT fingerprint FROM fleet.active_devices GROUP BY fingerprint HAVING min(day) >= (
                SELECT min(day) FROM fleet.active_devices WHERE fingerprint = {build:String}))
    ) / (
        SELECT sum(devices) FROM fleet.active_devices FINAL WHERE fingerprint GLOBAL IN (
            SELECT fingerprint FROM fleet.active_devices GROUP BY fingerprint HAVING min(day) < (
                SELECT min(day) FROM fleet.active_devices WHERE fingerprint = {build:String}))
    ), 1) AS expected,
    max(last_day) AS last_seen, any(text) AS signature
FROM
(
    SELECT
        toString(signature_id) AS signature_id, toString(fingerprint) AS fingerprint,
        any(program) AS of_program, any(signature) AS text, max(day) AS last_day,
        uniqExactMerge(incidents) AS count_in_build
    FROM fleet.incidents_by_day
    GROUP BY signature_id, fingerprint
)
ANY INNER JOIN
(
    SELECT fingerprint, min(day) AS first_active FROM fleet.active_devices GROUP BY fingerprint
) USING fingerprint
WHERE (SELECT count() FROM fleet.active_devices WHERE fingerprint = {build:String}) > 0
GROUP BY signature_id
HAVING countIf(first_active >= (
    SELECT min(day) FROM fleet.active_devices WHERE fingerprint = {build:String})) = 0
ORDER BY incidents_before DESC, signature_id
LIMIT {top:UInt32}
