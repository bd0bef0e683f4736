# SPDX-License-Identifier: MIT
import json

from frames import CLOSED, OPENED, TO_CONTROLLER, TO_HOST, WALL, command, damaged, recording, status


def arm(path, joints=1):
    """A recording in which one joint is commanded and moves."""
    state = status(11, 7, joints, {0: 3}, {0: 0.1}, {0: 9})
    return recording(path / "run.vrec", joints, (0, OPENED), (0.1, TO_HOST, state[:40]), (0.1, CLOSED), (0.2, OPENED),
                     (0.25, TO_CONTROLLER, command(7, joints, {0: (17, 1.5)}, arm=3)),
                     (1, TO_HOST, state[:60]), (1.000000001, TO_HOST, state[60:]),
                     (2, TO_HOST, damaged(status(12, 7, joints)) + status(13, 7, joints)), (3, CLOSED), tail=b"R\3\0\0torn!")


def test_csv_has_a_row_for_each_status(velta, tmp_path):
    run = velta("convert", arm(tmp_path))
    titles, first, second = run.stdout.splitlines()
    assert titles.startswith("time_s,wall_ns,timestamp,hostTimestamp,duration,j0_type,j0_comStatus,j0_systemMode")
    assert titles.count(",") == 28 and titles.endswith(",j0_general_2,j0_general_3")
    assert first == f"1.000000001,{WALL + 1000000001},11,7,0.5,0,1,3,20,9,0,7,0,1,2,3,4,5,0.1,7,8,9,10,11,12,13,14,15,16"
    assert second.startswith(f"2.000000000,{WALL + 2000000000},13,")
    assert run.status == 0
    assert run.stderr.endswith("run.vrec: the recording was cut short; 9 bytes at its end, not a whole record, left out\n")


def test_json_lines_have_the_librarys_documents(velta, tmp_path):
    run = velta("convert", arm(tmp_path, 2), "-f", "jsonl")  # the second joint is idle
    opened, _, _, sent, state, _, closed = map(json.loads, run.stdout.splitlines())
    assert opened == {"time_s": 0, "wall_ns": str(WALL), "event": "opened"} and closed["event"] == "closed"
    assert sent["command"] == {"timeStamp": "7", "armOrder": "3", "jointCommand": [
        {"jointName": "1", "jointOrder": "17", "value1": "1.5", "value2": "0", "value3": "0", "value4": "0"}]}
    assert sent["time_s"] == 0.25 and state["time_s"] == 1.000000001
    assert "0.1" in json.dumps(state["status"])


def test_an_excerpt_and_a_file_that_is_whole_or_not_there(velta, tmp_path):
    target = tmp_path / "out.csv"
    assert velta("convert", arm(tmp_path), "--from", "1500ms", "--to", "2s", "-o", target).status == 0
    assert [line[:5] for line in target.read_text().splitlines()] == ["time_", "2.000"]
    bad = recording(tmp_path / "bad.vrec", 1, (0, OPENED), tail=b"Rx")
    bad.write_bytes(bad.read_bytes() + bytes(40))
    target.unlink()
    assert velta("convert", bad, "-o", target).status == 1
    assert sorted(path.name for path in tmp_path.iterdir()) == ["bad.vrec", "run.vrec"]
